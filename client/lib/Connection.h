#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string_view>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include <gpio-client/Types.h>

namespace gpioclient {

using Deadline = std::chrono::steady_clock::time_point;

/// A TCP connection whose operations all end by a deadline, or when they are cancelled. Failures
/// throw Error.
class Connection {
public:
    Connection(const Endpoint& endpoint, std::chrono::milliseconds timeout,
               std::function<bool()> isCancelled);

    /// Sends all bytes in one write, so that the server gets a command in one read.
    void write(std::string_view bytes, Deadline deadline);

    /// Waits for bytes; an empty view when the deadline passes first. Valid until the next read.
    std::string_view read(Deadline deadline, bool isInterruptible = false);

    /// Ends one interruptible read early. Any thread may call it.
    void interrupt() noexcept;

    /// What has arrived already, without waiting; may be empty.
    std::string_view readAvailable();

    /// Half-closes, reads until the server hangs up or the time is over, then closes. Cannot be
    /// cancelled.
    void close(std::chrono::milliseconds timeout) noexcept;

    bool isOpen() const { return socket_.is_open(); }

private:
    void connect(const asio::ip::tcp::endpoint& address, Deadline deadline,
                 asio::error_code& error);
    void acknowledgeAtOnce();
    void watchForVanishedHost();
    bool runUntil(Deadline deadline);
    void cancelPending();
    [[noreturn]] void fail(const asio::error_code& error);

    Endpoint endpoint_;
    std::function<bool()> isCancelled_;
    asio::io_context context_;
    asio::ip::tcp::socket socket_;
    bool isInterruptible_ = false;
    bool isInterrupted_ = false;
    std::array<char, 4096> buffer_{};
};

} // namespace gpioclient
