// A browser's bytes: however they are cut into pieces, the requests and their answers are the same,
// and nothing is switched but by a request that has all it needs.

#include <set>
#include <string>

#include "Application.h"
#include "Check.h"
#include "Input.h"
#include "RequestReader.h"

namespace {

using webbridge::Application;
using webbridge::Request;
using webbridge::RequestReader;
using webbridge::Response;

constexpr std::size_t ENOUGH_REQUESTS = 50;
const std::set<unsigned> STATUSES{200, 204, 304, 400, 401, 403, 404, 405,
                                  409, 413, 415, 421, 431, 501, 503};

Application makeApplication(bool hasPassword) {
    return Application({webbridge::Guard({"gpio.example"}, hasPassword ? "sesame" : ""),
                        webbridge::Documents({{3, "Pump"}}, false), false});
}

webbridge::PinTable makeTable() {
    webbridge::PinTable table;
    table.backEnd = gpioclient::BackEnd::Test;
    table.connected = true;
    table.levels = {0xff00, 0xffff};
    table.inputs = 0x000f;
    return table;
}

std::string describe(const Response& response) {
    fuzz::expectTrue("an unexpected status", STATUSES.contains(response.status));
    const std::string text = response.toString(false, true);
    fuzz::expectTrue("an answer without a head", text.find("\r\n\r\n") != std::string::npos);
    return std::to_string(response.status) + " " + std::to_string(response.body.size()) + "\n";
}

void checkJob(const Request& request, const webbridge::WriteJob& job) {
    fuzz::expectTrue("a write without its header",
                     request.method == "PUT" && request.count("X-Gpio") == 1 &&
                         request.count("Content-Type") == 1 && request.count("Host") == 1);
    fuzz::expectTrue("a write with two lengths",
                     request.count("Content-Length") + request.count("Transfer-Encoding") == 1);
    fuzz::expectTrue("a write to no pin", job.pin < 16);
    fuzz::expectTrue("a write of two things", job.level.has_value() != job.direction.has_value());
    fuzz::expectTrue("a write to an input", !job.level || job.pin > 3);
}

std::string answer(const Application& application, const Request& request) {
    fuzz::expectTrue("a body beyond the limit", request.body.size() <= RequestReader::BODY_LIMIT);
    const auto result = application.answer(request, makeTable());
    if (const auto* response = std::get_if<Response>(&result)) {
        return describe(*response);
    }
    if (const auto* job = std::get_if<webbridge::WriteJob>(&result)) {
        checkJob(request, *job);
        return "write " + std::to_string(job->pin) + "\n";
    }
    return "events\n";
}

/// Reads requests as a connection does; what it got from them, and what is left of the bytes.
std::string converse(const Application& application, const std::string& bytes, std::size_t piece) {
    RequestReader reader;
    std::string transcript;
    std::string pending;
    std::size_t sent = 0;
    for (std::size_t count = 0; count < ENOUGH_REQUESTS;) {
        switch (reader.read(pending)) {
        case RequestReader::Step::NeedsMore: {
            if (sent == bytes.size()) {
                return transcript + "waits\n";
            }
            const std::string next = bytes.substr(sent, piece);
            sent += next.size();
            pending += next;
            break;
        }
        case RequestReader::Step::Head:
            if (const auto refusal = application.refuse(reader.request())) {
                transcript += describe(*refusal);
                if (reader.request().announcesBody()) {
                    return transcript + "closed\n";
                }
                reader.restart();
                ++count;
            }
            break;
        case RequestReader::Step::Complete:
            transcript += answer(application, reader.request());
            reader.restart();
            ++count;
            break;
        case RequestReader::Step::Failed:
            return transcript + describe(reader.failure()) + "failed\n";
        }
    }
    return transcript;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const bool hasPassword = input.byte() % 2 == 0;
    const std::size_t piece = 1U + input.byte();
    const std::string bytes = input.rest();
    const Application application = makeApplication(hasPassword);
    fuzz::expectEqual("answers to pieces", converse(application, bytes, bytes.size() + 1),
                      converse(application, bytes, piece));
    return 0;
}
