#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace gpioclient {

/// One bit for each pin: bit i stands for pin i.
using PinMask = std::uint64_t;

/// The mask of one pin; empty for numbers beyond every mask.
constexpr PinMask maskOf(unsigned pin) noexcept {
    return pin < 64 ? PinMask{1} << pin : 0;
}

constexpr bool contains(PinMask mask, unsigned pin) noexcept {
    return (mask & maskOf(pin)) != 0;
}

enum class BackEnd {
    Test, ///< Sixteen pins in the server's memory.
    Board ///< The USB board: 13 outputs (0 to 12) and 16 inputs (13 to 28).
};

enum class Level { Low, High };

enum class Direction { Output, Input };

/// Where a server listens.
struct Endpoint {
    std::string host = "localhost"; ///< Name, IPv4 address or IPv6 address without brackets.
    std::uint16_t port = 0;

    /// Reads "host:port" or "[ipv6]:port". Throws Error (InvalidArgument).
    static Endpoint parse(std::string_view text);

    /// The form that parse() reads.
    std::string toString() const;
};

/// How often an operation that waits asks whether it is cancelled.
inline constexpr std::chrono::milliseconds CANCEL_CHECK_INTERVAL{50};

/// Limits that hold for one Client. Its constructor waits for the connection and then for the
/// first request, if any; every other operation is one request. A connection that is closed, also
/// because of a failure, takes up to closeTimeout more.
struct Options {
    /// The back end, where it is known already; else the constructor of Client finds it out, and a
    /// server with a board logs an error. If it is wrong, ServerError or ProtocolViolation follow.
    std::optional<BackEnd> backEnd;
    /// For resolving the name and connecting together.
    std::chrono::milliseconds connectTimeout{5000};
    /// For one request, from sending it to its complete answer.
    std::chrono::milliseconds requestTimeout{5000};
    /// For the server to end its side when the connection is closed.
    std::chrono::milliseconds closeTimeout{1000};
    /// Change notices kept until they are fetched; the oldest are dropped beyond this.
    std::size_t maxQueuedNotices = 1024;
    /// Asked every CANCEL_CHECK_INTERVAL while an operation waits, on its thread; once it returns
    /// true, the operation throws Error (Cancelled) and the connection is closed. Must not throw,
    /// nor use the Client. May be empty.
    std::function<bool()> isCancelled;
};

/// Levels of all pins, taken by one request.
struct Levels {
    PinMask high = 0;  ///< Pins that are high; bits outside `known` are 0.
    PinMask known = 0; ///< Pins whose level the server can tell.

    constexpr bool isHigh(unsigned pin) const noexcept { return contains(high, pin); }

    /// Nothing for a pin whose level is not known.
    constexpr std::optional<Level> at(unsigned pin) const noexcept {
        if (!contains(known, pin)) {
            return std::nullopt;
        }
        return isHigh(pin) ? Level::High : Level::Low;
    }

    constexpr void set(unsigned pin, Level level) noexcept {
        known |= maskOf(pin);
        high = level == Level::High ? high | maskOf(pin) : high & ~maskOf(pin);
    }

    friend bool operator==(const Levels&, const Levels&) = default;
};

/// The server's message that input pins have changed.
struct ChangeNotice {
    PinMask changed = 0; ///< As the server says; its first notice counts every high input.
    PinMask high = 0;    ///< Inputs that are high now.
    std::chrono::system_clock::time_point received;
};

const char* toString(BackEnd backEnd) noexcept;     ///< "test" or "board".
const char* toString(Level level) noexcept;         ///< "low" or "high".
const char* toString(Direction direction) noexcept; ///< "output" or "input".

} // namespace gpioclient
