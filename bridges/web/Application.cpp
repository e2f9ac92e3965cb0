#include "Application.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "Page.h"
#include "RequestReader.h"
#include "Text.h"

namespace webbridge {

namespace {

using bridge::equalsIgnoringCase;
using gpioclient::BackEnd;
using gpioclient::Direction;
using gpioclient::Level;

constexpr std::string_view PINS = "/api/v1/pins";
constexpr std::string_view EVENTS = "/api/v1/events";
constexpr std::string_view HEALTH = "/healthz";
constexpr std::string_view METRICS = "/metrics";

Response apiResponse(std::string_view type, std::string body) {
    Response response;
    response.fields = {{"Content-Type", std::string(type)}, {"Cache-Control", "no-store"}};
    response.body = std::move(body);
    return response;
}

/// What a request is for: its path without the query. A proxy's absolute form must name the host
/// that Host names; an empty path stands for what is none.
std::string_view pathOf(const Request& request) {
    std::string_view target = request.target;
    constexpr std::string_view SCHEME = "http://";
    if (equalsIgnoringCase(target.substr(0, SCHEME.size()), SCHEME)) {
        target.remove_prefix(SCHEME.size());
        const std::size_t slash = std::min(target.find('/'), target.size());
        if (!equalsIgnoringCase(target.substr(0, slash), trimmed(request.field("Host")))) {
            return {};
        }
        target.remove_prefix(slash);
        target = target.empty() ? "/" : target;
    }
    return target.substr(0, target.find('?'));
}

const PageFile* findPageFile(std::string_view path) {
    for (const PageFile& file : pageFiles()) {
        if (file.path == path) {
            return &file;
        }
    }
    return nullptr;
}

bool isPinPath(std::string_view path) {
    return path.size() > PINS.size() + 1 && path.starts_with(PINS) && path[PINS.size()] == '/' &&
           path.find('/', PINS.size() + 1) == std::string_view::npos;
}

/// Calls back for each part of a list in a field, without its blanks.
template <typename Action> void forEachPart(std::string_view list, char separator, Action action) {
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(separator), list.size());
        action(trimmed(list.substr(0, end)));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
}

/// Whether q=0, q=0.0 and so on stand among the parameters.
bool isRuledOut(std::string_view parameters) {
    bool ruledOut = false;
    forEachPart(parameters, ';', [&ruledOut](std::string_view parameter) {
        if (parameter.starts_with("q=0") || parameter.starts_with("Q=0")) {
            ruledOut = parameter.find_first_not_of("0.", 2) == std::string_view::npos;
        }
    });
    return ruledOut;
}

bool takesGzip(const Request& request) {
    std::optional<bool> named;
    bool any = false;
    for (const auto& [name, value] : request.fields) {
        if (!equalsIgnoringCase(name, "Accept-Encoding")) {
            continue;
        }
        forEachPart(value, ',', [&](std::string_view part) {
            const std::size_t end = std::min(part.find(';'), part.size());
            const std::string_view coding = trimmed(part.substr(0, end));
            const bool wanted = !isRuledOut(part.substr(end));
            if (equalsIgnoringCase(coding, "gzip") || equalsIgnoringCase(coding, "x-gzip")) {
                named = wanted;
            } else if (coding == "*") {
                any = wanted;
            }
        });
    }
    return named.value_or(any);
}

bool hasTag(const Request& request, std::string_view tag) {
    bool found = false;
    forEachPart(request.field("If-None-Match"), ',', [&](std::string_view part) {
        if (part.starts_with("W/")) {
            part.remove_prefix(2);
        }
        found = found || part == "*" || part == tag;
    });
    return found;
}

Response pageResponse(const Request& request, const PageFile& file) {
    const bool compressed = takesGzip(request);
    std::string tag = "\"" + std::string(file.etag) + (compressed ? "-gz\"" : "\"");
    Response response;
    response.status = hasTag(request, tag) ? 304 : 200;
    response.fields = {
        {"ETag", std::move(tag)}, {"Cache-Control", "no-cache"}, {"Vary", "Accept-Encoding"}};
    if (response.status == 200) {
        response.fields.emplace_back("Content-Type", file.type);
        if (compressed) {
            response.fields.emplace_back("Content-Encoding", "gzip");
        }
        response.body = compressed ? file.compressed : file.content;
    }
    return response;
}

bool isJson(std::string_view type) {
    const std::size_t end = std::min(type.find(';'), type.size());
    bool valid = equalsIgnoringCase(trimmed(type.substr(0, end)), "application/json");
    forEachPart(type.substr(std::min(end + 1, type.size())), ';', [&](std::string_view parameter) {
        valid = valid && (parameter.empty() || equalsIgnoringCase(parameter, "charset=utf-8") ||
                          equalsIgnoringCase(parameter, "charset=\"utf-8\""));
    });
    return valid;
}

/// An object with exactly one key, level or dir; the library would take the last of two.
std::optional<WriteJob> parseBody(const std::string& body) {
    using Json = nlohmann::json;
    int keys = 0;
    const Json document = Json::parse(
        body,
        [&keys](int depth, Json::parse_event_t event, const Json& /*value*/) {
            keys += event == Json::parse_event_t::key ? 1 : 0;
            return depth <= 1;
        },
        false);
    if (!document.is_object() || document.size() != 1 || keys != 1) {
        return std::nullopt;
    }
    WriteJob job;
    const Json& value = *document.begin();
    if (document.contains("level") && value.is_number_integer()) {
        const auto level = value.get<std::int64_t>();
        if (level == 0 || level == 1) {
            job.level = level == 1 ? Level::High : Level::Low;
            return job;
        }
    }
    if (document.contains("dir") && value.is_string()) {
        const auto direction = value.get<std::string>();
        if (direction == "in" || direction == "out") {
            job.direction = direction == "in" ? Direction::Input : Direction::Output;
            return job;
        }
    }
    return std::nullopt;
}

Response unauthorized(bool delayed) {
    Response response = errorResponse(401, "the user gpio and its password are needed");
    response.fields.emplace_back("WWW-Authenticate", R"(Basic realm="gpio", charset="UTF-8")");
    response.delayed = delayed;
    return response;
}

} // namespace

Application::Application(Config config) : config_(std::move(config)) {}

std::optional<Response> Application::refuse(const Request& request) const {
    if (request.count("Host") != 1) {
        return errorResponse(400, "a request has one Host");
    }
    if (request.count("Origin") > 1) {
        return errorResponse(400, "a request has one Origin");
    }
    if (!config_.guard.allowsHost(request)) {
        return errorResponse(421, "this name is not served here; see --allow-host");
    }
    const std::string_view path = pathOf(request);
    if (path != HEALTH) {
        const auto credentials = config_.guard.credentialsOf(request);
        if (credentials != Guard::Credentials::Right) {
            // A browser asks without a password first.
            return unauthorized(credentials == Guard::Credentials::Wrong);
        }
    }
    const bool isPin = isPinPath(path);
    if (!isPin && path != PINS && path != EVENTS && path != HEALTH && path != METRICS &&
        findPageFile(path) == nullptr) {
        return errorResponse(404, "there is no such path");
    }
    const bool allowed =
        isPin ? request.method == "PUT" : request.method == "GET" || request.method == "HEAD";
    if (!allowed) {
        Response response = errorResponse(405, "this path does not know that method");
        response.fields.emplace_back("Allow", isPin ? "PUT" : "GET, HEAD");
        return response;
    }
    if (isPin) {
        if (auto refusal = refuseWrite(request)) {
            return refusal;
        }
    }
    if (request.contentLength.value_or(0) > RequestReader::BODY_LIMIT) {
        return errorResponse(413, "the body is longer than 4 KiB");
    }
    return std::nullopt;
}

std::optional<Response> Application::refuseWrite(const Request& request) const {
    if (request.count("X-Gpio") != 1 || trimmed(request.field("X-Gpio")) != "1") {
        return errorResponse(403, "the header X-Gpio: 1 is missing");
    }
    if (!Guard::allowsOrigin(request)) {
        return errorResponse(403, "pages of another origin must not drive pins");
    }
    if (config_.readOnly) {
        return errorResponse(403, "this is for looking only");
    }
    if (request.count("Content-Type") != 1 || !isJson(trimmed(request.field("Content-Type")))) {
        return errorResponse(415, "the body must be application/json");
    }
    return std::nullopt;
}

Application::Answer Application::answer(const Request& request, const PinTable& table) const {
    const std::string_view path = pathOf(request);
    if (const PageFile* file = findPageFile(path)) {
        return pageResponse(request, *file);
    }
    if (path == PINS) {
        return apiResponse("application/json", config_.documents.pins(table) + "\n");
    }
    if (path == EVENTS) {
        if (request.method == "HEAD") {
            return apiResponse("text/event-stream", {});
        }
        return StartEvents{};
    }
    if (path == HEALTH) {
        Response response = apiResponse("text/plain; charset=utf-8",
                                        table.connected ? "ok" : "board or server away");
        response.status = table.connected ? 200 : 503;
        return response;
    }
    if (path == METRICS) {
        return apiResponse("text/plain; version=0.0.4; charset=utf-8",
                           Documents::metrics(table, requests_));
    }
    return answerWrite(request, table);
}

Application::Answer Application::answerWrite(const Request& request, const PinTable& table) const {
    auto job = parseBody(request.body);
    if (!job) {
        return errorResponse(400, R"(the body must be {"level":0}, {"level":1}, )"
                                  R"({"dir":"in"} or {"dir":"out"})");
    }
    if (!table.connected) {
        return answerTo(WriteOutcome::Away);
    }
    const auto pin = bridge::pinFrom(pathOf(request).substr(PINS.size() + 1));
    if (!pin || !table.has(*pin)) {
        return answerTo(WriteOutcome::NoSuchPin);
    }
    if (job->direction && table.backEnd == BackEnd::Board) {
        return answerTo(WriteOutcome::DirectionFixed);
    }
    if (job->level && table.isInput(*pin)) {
        return answerTo(WriteOutcome::IsInput);
    }
    job->pin = *pin;
    return *job;
}

Response Application::answerTo(WriteOutcome outcome) {
    switch (outcome) {
    case WriteOutcome::Done: {
        Response response;
        response.status = 204;
        response.fields = {{"Cache-Control", "no-store"}};
        return response;
    }
    case WriteOutcome::NoSuchPin:
        return errorResponse(404, "there is no such pin");
    case WriteOutcome::IsInput:
        return errorResponse(409, "this pin is an input");
    case WriteOutcome::DirectionFixed:
        return errorResponse(409, "the directions of the board's pins are fixed");
    case WriteOutcome::Away:
        return errorResponse(503, "the board or the server is away; nothing was changed");
    case WriteOutcome::Refused:
        return errorResponse(503, "the server could not do it");
    case WriteOutcome::Unacknowledged:
        break;
    }
    return errorResponse(503, "not acknowledged; it may have been carried out");
}

} // namespace webbridge
