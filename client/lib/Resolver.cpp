#include "Resolver.h"

#include <algorithm>
#include <future>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include <asio/io_context.hpp>

#include <gpio-client/Error.h>

namespace gpioclient {

namespace {

using asio::ip::tcp;

std::vector<tcp::endpoint> lookUp(const std::string& host, const std::string& port) {
    asio::io_context context;
    tcp::resolver resolver(context);
    std::vector<tcp::endpoint> addresses;
    for (const auto& entry : resolver.resolve(host, port, tcp::resolver::numeric_service)) {
        addresses.push_back(entry.endpoint());
    }
    return addresses;
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
    std::packaged_task<std::vector<tcp::endpoint>()> task(
        [host = endpoint.host, port = std::to_string(endpoint.port)] {
            return lookUp(host, port);
        });
    auto addresses = task.get_future();
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
        state = addresses.wait_until(std::min(deadline, now + CANCEL_CHECK_INTERVAL));
    }
    try {
        return addresses.get();
    } catch (const std::system_error& error) {
        throw Error(Cause::NameNotFound,
                    "cannot find the host " + endpoint.host + ": " + error.code().message());
    }
}

} // namespace gpioclient
