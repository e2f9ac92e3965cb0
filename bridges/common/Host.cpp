#include "Host.h"

#include <array>
#include <string>

#include <arpa/inet.h>

#include "Text.h"

namespace bridge {

namespace {

using Address = std::array<unsigned char, sizeof(in6_addr)>;

/// The system's function would not see what stands behind a NUL.
bool parse(int family, std::string_view text, Address& address) {
    return text.find('\0') == std::string_view::npos &&
           inet_pton(family, std::string(text).c_str(), address.data()) == 1;
}

} // namespace

bool isAddress(std::string_view text) {
    Address address{};
    return parse(AF_INET, text, address) || parse(AF_INET6, text, address);
}

bool isLoopback(std::string_view host) {
    constexpr unsigned char IPV4_NETWORK = 127;
    constexpr Address IPV6_LOOPBACK{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    Address address{};
    if (parse(AF_INET, host, address)) {
        return address[0] == IPV4_NETWORK;
    }
    if (parse(AF_INET6, host, address)) {
        return address == IPV6_LOOPBACK;
    }
    return equalsIgnoringCase(host, "localhost");
}

} // namespace bridge
