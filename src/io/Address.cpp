#include "io/Address.h"

#include <array>

#include <arpa/inet.h>

namespace io {

std::string dottedDecimal(const sockaddr_in& address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return text.data();
}

} // namespace io
