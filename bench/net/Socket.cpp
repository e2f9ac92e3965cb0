#include "net/Socket.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace net {

namespace {

[[noreturn]] void fail(const char* operation) {
    throw std::system_error(errno, std::generic_category(), operation);
}

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void setOption(int descriptor, int level, int option) {
    const int on = 1;
    setsockopt(descriptor, level, option, &on, sizeof(on));
}

Socket streamSocket(int family) {
    Socket result(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (result.descriptor() < 0) {
        fail("socket");
    }
    return result;
}

} // namespace

Socket::Socket(Socket&& other) noexcept : number_(std::exchange(other.number_, -1)) {}

Socket& Socket::operator=(Socket&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
}

Socket::~Socket() {
    if (number_ >= 0) {
        ::close(number_);
    }
}

void Socket::send(std::string_view text) const {
    while (!text.empty()) {
        const ssize_t count = ::send(number_, text.data(), text.size(), MSG_NOSIGNAL);
        if (count < 0) {
            fail("send");
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

std::string_view Socket::receive(char* buffer, std::size_t size) const {
    const ssize_t count = ::recv(number_, buffer, size, 0);
    if (count < 0) {
        fail("recv");
    }
    if (count == 0) {
        throw std::runtime_error("the server ended the connection");
    }
    return {buffer, static_cast<std::size_t>(count)};
}

std::string Socket::receiveExactly(std::size_t length) const {
    std::string result(length, '\0');
    for (std::size_t done = 0; done < length;) {
        done += receive(result.data() + done, length - done).size();
    }
    return result;
}

std::string Socket::receiveLine() const {
    std::string result;
    std::array<char, 4096> buffer;
    while (result.empty() || result.back() != '\n') {
        result += receive(buffer.data(), buffer.size());
    }
    return result;
}

void Socket::drain() const {
    std::array<char, 4096> buffer;
    while (::recv(number_, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
    }
}

Socket connectToPort(std::uint16_t port) {
    Socket result = streamSocket(AF_INET);
    setOption(result.descriptor(), IPPROTO_TCP, TCP_NODELAY);
    const sockaddr_in address = loopback(port);
    if (::connect(result.descriptor(), reinterpret_cast<const sockaddr*>(&address),
                  sizeof(address)) != 0) {
        fail("connect");
    }
    return result;
}

Socket connectToPath(const std::string& path) {
    Socket result = streamSocket(AF_UNIX);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (::connect(result.descriptor(), reinterpret_cast<const sockaddr*>(&address),
                  sizeof(address)) != 0) {
        fail("connect");
    }
    return result;
}

Socket listenOn(std::uint16_t port, int backlog) {
    Socket result = streamSocket(AF_INET);
    setOption(result.descriptor(), SOL_SOCKET, SO_REUSEADDR);
    setOption(result.descriptor(), IPPROTO_TCP, TCP_NODELAY);
    const sockaddr_in address = loopback(port);
    if (::bind(result.descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
            0 ||
        ::listen(result.descriptor(), backlog) != 0) {
        fail("listen");
    }
    return result;
}

} // namespace net
