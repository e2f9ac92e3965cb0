#include "support/FakeServer.h"

#include <array>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/Eventually.h"

namespace support {

namespace {

sockaddr_storage loopback(bool ipv6, std::uint16_t port) {
    sockaddr_storage storage{};
    if (ipv6) {
        auto& address = reinterpret_cast<sockaddr_in6&>(storage);
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = in6addr_loopback;
    } else {
        auto& address = reinterpret_cast<sockaddr_in&>(storage);
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    return storage;
}

socklen_t addressSize(bool ipv6) {
    return ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

Descriptor listenOn(bool ipv6, std::uint16_t port) {
    Descriptor listener(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(listener.number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_storage address = loopback(ipv6, port);
    if (bind(listener.number(), reinterpret_cast<const sockaddr*>(&address), addressSize(ipv6)) !=
            0 ||
        listen(listener.number(), 8) != 0) {
        throw std::runtime_error("cannot listen on the loopback");
    }
    return listener;
}

std::uint16_t portOf(int descriptor) {
    sockaddr_in6 address{};
    socklen_t size = sizeof address;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin6_port);
}

bool waitReadable(int descriptor) {
    pollfd entry{descriptor, POLLIN, 0};
    return poll(&entry, 1, PATIENCE_MILLISECONDS) > 0;
}

} // namespace

std::string FakePeer::receive() const {
    std::array<char, 64> buffer{};
    if (!waitReadable(descriptor_)) {
        return {};
    }
    const ssize_t size = recv(descriptor_, buffer.data(), buffer.size(), 0);
    return size > 0 ? std::string(buffer.data(), static_cast<std::size_t>(size)) : std::string();
}

bool FakePeer::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t size = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (size <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(size));
    }
    return true;
}

void FakePeer::sendInPieces(const std::vector<std::string>& pieces) const {
    for (const std::string& piece : pieces) {
        eventually([this] {
            int unacknowledged = 1;
            ioctl(descriptor_, SIOCOUTQ, &unacknowledged);
            return unacknowledged == 0;
        });
        send(piece);
    }
}

std::vector<std::string> FakePeer::answer(const std::vector<std::string>& answers) const {
    std::vector<std::string> commands;
    for (const std::string& answer : answers) {
        commands.push_back(receive());
        send(answer);
    }
    return commands;
}

void FakePeer::beSilent() const {
    while (!receive().empty()) {
    }
}

void FakePeer::endWithReset() const {
    const linger now{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

void FakePeer::beTestBackEnd() const {
    gpioclient::Levels levels;
    for (std::string command = receive(); command.size() == 3; command = receive()) {
        const unsigned pin = static_cast<unsigned>(std::stoul(command.substr(1, 1), nullptr, 16));
        std::array<char, 16> mask{};
        std::snprintf(mask.data(), mask.size(), "%04x", static_cast<unsigned>(levels.high));
        switch (command[0]) {
        case 'A':
            send("A" + std::string(mask.data()) + "A\n");
            break;
        case 'I':
            send("I0000I\n");
            break;
        case 'P':
            send("P0000P\n");
            break;
        case 'R':
            send(levels.isHigh(pin) ? "R1R\n" : "R0R\n");
            break;
        case 'W':
            levels.set(pin, command[2] == '1' ? gpioclient::Level::High : gpioclient::Level::Low);
            send("W1W\n");
            break;
        default:
            send("^ UNKNOWN COMMAND: " + command + " ^");
        }
    }
}

FakeServer::FakeServer(Script script, std::uint16_t port, bool ipv6)
    : script_(std::move(script)), ipv6_(ipv6), listener_(listenOn(ipv6, port)),
      port_(portOf(listener_.number())), thread_([this] { run(); }) {}

FakeServer::~FakeServer() {
    stop();
}

gpioclient::Endpoint FakeServer::endpoint() const {
    return {ipv6_ ? "::1" : "127.0.0.1", port_};
}

void FakeServer::stop() {
    if (stopped_.exchange(true)) {
        return;
    }
    shutdown(listener_.number(), SHUT_RDWR);
    {
        const std::lock_guard lock(mutex_);
        if (connection_ >= 0) {
            shutdown(connection_, SHUT_RDWR);
        }
    }
    thread_.join();
}

void FakeServer::run() {
    while (!stopped_) {
        const int descriptor = accept4(listener_.number(), nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor >= 0) {
            serve(descriptor);
        }
    }
}

void FakeServer::serve(int descriptor) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    {
        const std::lock_guard lock(mutex_);
        connection_ = stopped_ ? -1 : descriptor;
    }
    if (!stopped_) {
        script_(FakePeer(descriptor));
    }
    const std::lock_guard lock(mutex_);
    connection_ = -1;
    close(descriptor);
}

FakeServer::Script answering(std::vector<std::string> answers) {
    return [answers = std::move(answers)](const FakePeer& peer) {
        peer.answer(answers);
        peer.beSilent();
    };
}

} // namespace support
