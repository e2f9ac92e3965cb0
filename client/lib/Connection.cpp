#include "Connection.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <gpio-client/Error.h>

#include "Resolver.h"

namespace gpioclient {

namespace {

using std::chrono::steady_clock;

Error connectError(const Endpoint& endpoint, const asio::error_code& error) {
    const std::string where = "cannot connect to " + endpoint.toString() + ": ";
    if (error == asio::error::connection_refused) {
        return {Cause::ConnectionRefused, where + "connection refused"};
    }
    if (error == asio::error::timed_out) {
        return {Cause::TimedOut, where + "timed out"};
    }
    return {Cause::Unreachable, where + error.message()};
}

} // namespace

Connection::Connection(const Endpoint& endpoint, std::chrono::milliseconds timeout,
                       std::function<bool()> isCancelled) try
    : endpoint_(endpoint), isCancelled_(std::move(isCancelled)), socket_(context_) {
    const Deadline deadline = steady_clock::now() + timeout;
    const auto addresses = resolve(endpoint, deadline, isCancelled_);
    asio::error_code error = asio::error::timed_out;
    auto left = static_cast<steady_clock::rep>(addresses.size());
    for (const auto& address : addresses) {
        // One silent address must not use up the time of those after it.
        const auto share = (deadline - steady_clock::now()) / left--;
        connect(address, steady_clock::now() + share, error);
        if (!error) {
            return;
        }
    }
    throw connectError(endpoint, error);
} catch (const std::system_error& error) {
    throw Error(Cause::OutOfResources, "cannot connect: " + std::string(error.what()));
}

void Connection::connect(const asio::ip::tcp::endpoint& address, Deadline deadline,
                         asio::error_code& error) {
    asio::error_code ignored;
    socket_.close(ignored);
    error = asio::error::would_block;
    socket_.async_connect(address, [&](const asio::error_code& result) { error = result; });
    if (!runUntil(deadline)) {
        error = asio::error::timed_out;
    }
    if (error) {
        socket_.close(ignored);
        return;
    }
    // Without this a command could wait for the acknowledgement of the one before.
    socket_.set_option(asio::ip::tcp::no_delay(true), error);
    watchForVanishedHost();
}

/// A connection that only waits for notices would never notice that nobody sends them any more.
void Connection::watchForVanishedHost() {
    constexpr int IDLE_SECONDS = 30;
    constexpr int INTERVAL_SECONDS = 10;
    constexpr int USER_TIMEOUT_MILLISECONDS = 30'000;
    const auto set = [this](int level, int option, int value) {
        setsockopt(socket_.native_handle(), level, option, &value, sizeof value);
    };
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
    set(IPPROTO_TCP, TCP_KEEPIDLE, IDLE_SECONDS);
    set(IPPROTO_TCP, TCP_KEEPINTVL, INTERVAL_SECONDS);
    set(IPPROTO_TCP, TCP_USER_TIMEOUT, USER_TIMEOUT_MILLISECONDS);
}

/// Runs the one pending operation; gives it up when the deadline passes first.
bool Connection::runUntil(Deadline deadline) {
    context_.restart();
    while (true) {
        const Deadline check = steady_clock::now() + CANCEL_CHECK_INTERVAL;
        const Deadline next = isCancelled_ ? std::min(deadline, check) : deadline;
        context_.run_until(next);
        if (context_.stopped()) {
            return true;
        }
        if (next == deadline) {
            cancelPending();
            return false;
        }
        if (isCancelled_()) {
            cancelPending();
            throw Error(Cause::Cancelled, "cancelled");
        }
    }
}

void Connection::cancelPending() {
    asio::error_code ignored;
    socket_.cancel(ignored);
    context_.run();
}

void Connection::interrupt() noexcept {
    asio::post(context_, [this] {
        isInterrupted_ = true;
        if (isInterruptible_) {
            asio::error_code ignored;
            socket_.cancel(ignored);
        }
    });
}

void Connection::fail(const asio::error_code& error) {
    const bool ended = error == asio::error::eof || error == asio::error::connection_reset ||
                       error == asio::error::broken_pipe;
    throw Error(Cause::ConnectionLost,
                ended ? "the server at " + endpoint_.toString() + " closed the connection"
                      : "lost the connection to " + endpoint_.toString() + ": " + error.message());
}

void Connection::write(std::string_view bytes, Deadline deadline) {
    asio::error_code error;
    asio::async_write(
        socket_, asio::buffer(bytes.data(), bytes.size()),
        [&](const asio::error_code& result, std::size_t /*size*/) { error = result; });
    if (!runUntil(deadline)) {
        throw Error(Cause::TimedOut, "sending to " + endpoint_.toString() + " took too long");
    }
    if (error) {
        fail(error);
    }
}

/// A server that writes an answer and its line end as two packets may hold back the second until
/// the first is acknowledged. The system forgets this option now and then, so it is renewed.
void Connection::acknowledgeAtOnce() {
    const int on = 1;
    setsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

std::string_view Connection::read(Deadline deadline, bool isInterruptible) {
    if (isInterruptible && std::exchange(isInterrupted_, false)) {
        return {};
    }
    acknowledgeAtOnce();
    isInterruptible_ = isInterruptible;
    asio::error_code error;
    std::size_t size = 0;
    socket_.async_read_some(asio::buffer(buffer_),
                            [&](const asio::error_code& result, std::size_t count) {
                                error = result;
                                size = count;
                            });
    const bool isOver = !runUntil(deadline);
    isInterruptible_ = false;
    if (size == 0 && (isOver || error == asio::error::operation_aborted)) {
        isInterrupted_ = false;
        return {};
    }
    if (error) {
        fail(error);
    }
    return {buffer_.data(), size};
}

std::string_view Connection::readAvailable() {
    acknowledgeAtOnce();
    asio::error_code error;
    socket_.non_blocking(true, error);
    const std::size_t size = socket_.read_some(asio::buffer(buffer_), error);
    if (error == asio::error::would_block) {
        return {};
    }
    if (error) {
        fail(error);
    }
    return {buffer_.data(), size};
}

void Connection::close(std::chrono::milliseconds timeout) noexcept {
    if (!socket_.is_open()) {
        return;
    }
    isCancelled_ = nullptr;
    asio::error_code ignored;
    try {
        socket_.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
        const Deadline deadline = steady_clock::now() + timeout;
        while (steady_clock::now() < deadline) {
            read(deadline);
        }
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): hung up, as wanted
    }
    socket_.close(ignored);
}

} // namespace gpioclient
