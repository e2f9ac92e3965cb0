#include <charconv>

#include <gpio-client/Error.h>
#include <gpio-client/Types.h>

namespace gpioclient {

namespace {

[[noreturn]] void badEndpoint(std::string_view text) {
    throw Error(Cause::InvalidArgument,
                "\"" + std::string(text) + "\" is not of the form host:port or [ipv6]:port");
}

std::uint16_t parsePort(std::string_view port, std::string_view whole) {
    std::uint16_t number = 0;
    const char* end = port.data() + port.size();
    const auto result = std::from_chars(port.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end || number == 0) {
        badEndpoint(whole);
    }
    return number;
}

} // namespace

Endpoint Endpoint::parse(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || colon == 0) {
        badEndpoint(text);
    }
    std::string_view host = text.substr(0, colon);
    const bool bracketed = host.front() == '[' && host.back() == ']';
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    if (host.empty() || (!bracketed && host.find(':') != std::string_view::npos)) {
        badEndpoint(text);
    }
    return {std::string(host), parsePort(text.substr(colon + 1), text)};
}

std::string Endpoint::toString() const {
    const bool ipv6 = host.find(':') != std::string::npos;
    return (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

const char* toString(BackEnd backEnd) noexcept {
    return backEnd == BackEnd::Board ? "board" : "test";
}

const char* toString(Level level) noexcept {
    return level == Level::High ? "high" : "low";
}

const char* toString(Direction direction) noexcept {
    return direction == Direction::Input ? "input" : "output";
}

} // namespace gpioclient
