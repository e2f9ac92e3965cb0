#include "Resolver.h"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include <asio/io_context.hpp>

#include <gpio-client/Error.h>

namespace gpioclient {

namespace {

using asio::ip::tcp;

struct Lookup {
    std::mutex mutex;
    std::condition_variable done;
    bool isDone = false;
    asio::error_code error;
    std::vector<tcp::endpoint> addresses;
};

std::vector<tcp::endpoint> addressesOf(const std::string& host, const std::string& port) {
    asio::io_context context;
    tcp::resolver resolver(context);
    std::vector<tcp::endpoint> addresses;
    for (const auto& entry : resolver.resolve(host, port, tcp::resolver::numeric_service)) {
        addresses.push_back(entry.endpoint());
    }
    return addresses;
}

void run(Lookup& lookup, const std::string& host, const std::string& port) {
    asio::error_code error;
    std::vector<tcp::endpoint> addresses;
    try {
        addresses = addressesOf(host, port);
    } catch (const std::system_error& failure) {
        error = failure.code();
    }
    const std::lock_guard lock(lookup.mutex);
    lookup.error = error;
    lookup.addresses = std::move(addresses);
    lookup.isDone = true;
    lookup.done.notify_all();
}

void waitForEnd(Lookup& lookup, const std::string& host,
                std::chrono::steady_clock::time_point deadline,
                const std::function<bool()>& isCancelled) {
    std::unique_lock lock(lookup.mutex);
    while (!lookup.isDone) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            throw Error(Cause::TimedOut, "looking up the name " + host + " took too long");
        }
        if (isCancelled && isCancelled()) {
            throw Error(Cause::Cancelled, "cancelled");
        }
        lookup.done.wait_until(lock, std::min(deadline, now + CANCEL_CHECK_INTERVAL));
    }
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
    // The system's look-up cannot be interrupted, so one that takes too long is left behind.
    auto lookup = std::make_shared<Lookup>();
    std::thread([lookup, host = endpoint.host, port = std::to_string(endpoint.port)] {
        run(*lookup, host, port);
    }).detach();

    waitForEnd(*lookup, endpoint.host, deadline, isCancelled);
    const std::lock_guard lock(lookup->mutex);
    if (lookup->error || lookup->addresses.empty()) {
        throw Error(Cause::NameNotFound,
                    "cannot find the host " + endpoint.host + ": " + lookup->error.message());
    }
    return std::move(lookup->addresses);
}

} // namespace gpioclient
