#include "support/ReservedPort.h"

#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace support {

// Bound, with address reuse, but never listening.
ReservedPort::ReservedPort() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int reuse = 1;
    setsockopt(socket_.number(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(socket_.number(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        getsockname(socket_.number(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no port to reserve");
    }
    port_ = ntohs(address.sin_port);
}

} // namespace support
