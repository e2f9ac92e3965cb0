#include "Resolver.h"

#include <algorithm>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include <asio/io_context.hpp>

#include <gpio-client/Error.h>

namespace gpioclient {

namespace {

using asio::ip::tcp;

/// A value, not an exception: the thread that made one may be the last to let go of it.
struct Answer {
    std::vector<tcp::endpoint> addresses;
    asio::error_code problem;
};

Answer lookUp(const std::string& host, const std::string& port) {
    asio::io_context context;
    tcp::resolver resolver(context);
    Answer answer;
    for (const auto& entry :
         resolver.resolve(host, port, tcp::resolver::numeric_service, answer.problem)) {
        answer.addresses.push_back(entry.endpoint());
    }
    return answer;
}

} // namespace

std::vector<tcp::endpoint> resolve(const Endpoint& endpoint,
                                   std::chrono::steady_clock::time_point deadline,
                                   const std::function<bool()>& isCancelled) {
    asio::error_code notNumeric;
    const auto address = asio::ip::make_address(endpoint.host, notNumeric);
    if (!notNumeric) {
        return {tcp::endpoint(address, endpoint.port)};
    }
    // The system's look-up cannot be interrupted, so one that takes too long is left behind; its
    // thread owns all that it touches.
    std::packaged_task<Answer()> task([host = endpoint.host, port = std::to_string(endpoint.port)] {
        return lookUp(host, port);
    });
    auto pending = task.get_future();
    std::thread(std::move(task)).detach();

    auto state = std::future_status::timeout;
    while (state != std::future_status::ready) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            throw Error(Cause::TimedOut, "looking up the name " + endpoint.host + " took too long");
        }
        if (isCancelled && isCancelled()) {
            throw Error(Cause::Cancelled, "cancelled");
        }
        state = pending.wait_until(std::min(deadline, now + CANCEL_CHECK_INTERVAL));
    }
    Answer answer = pending.get();
    if (answer.problem) {
        throw Error(Cause::NameNotFound,
                    "cannot find the host " + endpoint.host + ": " + answer.problem.message());
    }
    return std::move(answer.addresses);
}

} // namespace gpioclient
