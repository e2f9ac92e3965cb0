#pragma once

#include <stdexcept>
#include <string>

namespace gpioclient {

/// Why an operation failed.
enum class Cause {
    InvalidArgument,   ///< Malformed endpoint, command or option; nothing was sent.
    PinOutOfRange,     ///< The back end has no such pin; nothing was sent.
    Unsupported,       ///< This pin or back end cannot do that; nothing was sent.
    NameNotFound,      ///< The host name has no address.
    ConnectionRefused, ///< Nobody listens there.
    Unreachable,       ///< The network gave another reason for not connecting.
    ConnectionLost,    ///< The server hung up, or the connection was given up earlier.
    TimedOut,          ///< No complete answer in time.
    ServerError,       ///< The server answered with an error text.
    RequestFailed,     ///< The server answered with the digit that means failure.
    ProtocolViolation, ///< The bytes received are not the server's protocol.
    OutOfResources,    ///< This program has no descriptor or thread left.
    Cancelled,         ///< Options::isCancelled asked for the end.
};

/// The one exception type of this library. what() is a sentence for people.
class Error : public std::runtime_error {
public:
    Error(Cause cause, const std::string& message) : std::runtime_error(message), cause_(cause) {}

    Cause cause() const noexcept { return cause_; }

    /// True when connecting again may help: the connection could not be made or has gone.
    bool isConnectionProblem() const noexcept;

private:
    Cause cause_;
};

/// A short English name of the cause, such as "connection refused".
const char* toString(Cause cause) noexcept;

} // namespace gpioclient
