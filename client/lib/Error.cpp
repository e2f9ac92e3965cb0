#include <gpio-client/Error.h>

namespace gpioclient {

bool Error::isConnectionProblem() const noexcept {
    switch (cause_) {
    case Cause::NameNotFound:
    case Cause::ConnectionRefused:
    case Cause::Unreachable:
    case Cause::ConnectionLost:
    case Cause::TimedOut:
        return true;
    default:
        return false;
    }
}

const char* toString(Cause cause) noexcept {
    switch (cause) {
    case Cause::InvalidArgument:
        return "invalid argument";
    case Cause::PinOutOfRange:
        return "pin out of range";
    case Cause::Unsupported:
        return "not supported";
    case Cause::NameNotFound:
        return "name not found";
    case Cause::ConnectionRefused:
        return "connection refused";
    case Cause::Unreachable:
        return "unreachable";
    case Cause::ConnectionLost:
        return "connection lost";
    case Cause::TimedOut:
        return "timed out";
    case Cause::ServerError:
        return "server error";
    case Cause::RequestFailed:
        return "request failed";
    case Cause::ProtocolViolation:
        return "protocol violation";
    case Cause::OutOfResources:
        return "out of resources";
    case Cause::Cancelled:
        return "cancelled";
    }
    return "unknown cause";
}

} // namespace gpioclient
