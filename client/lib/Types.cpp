#include <algorithm>
#include <charconv>

#include <gpio-client/Error.h>
#include <gpio-client/Types.h>

namespace gpioclient {

namespace {

/// 0 for what is no port.
std::uint16_t parsePort(std::string_view text) {
    std::uint16_t number = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end ? number : std::uint16_t{0};
}

} // namespace

Endpoint Endpoint::parse(std::string_view text) {
    const std::size_t colon = std::min(text.rfind(':'), text.size());
    std::string_view host = text.substr(0, colon);
    const bool bracketed = host.starts_with('[') && host.ends_with(']');
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    const bool isHost = !host.empty() && (bracketed || host.find(':') == std::string_view::npos);
    const std::uint16_t port = colon == text.size() ? 0 : parsePort(text.substr(colon + 1));
    if (!isHost || port == 0) {
        throw Error(Cause::InvalidArgument,
                    "\"" + std::string(text) + "\" is not of the form host:port or [ipv6]:port");
    }
    return {std::string(host), port};
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
