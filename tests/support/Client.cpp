#include "support/Client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

namespace support {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

void setOption(int descriptor, int level, int option, int value) {
    setsockopt(descriptor, level, option, &value, sizeof(value));
}

bool isConnected(int descriptor) {
    int problem = 0;
    socklen_t length = sizeof(problem);
    getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &problem, &length);
    return problem == 0;
}

/// One attempt; empty when it does not succeed within a short while.
Descriptor tryToConnect(const char* host, std::uint16_t port, int receiveBuffer) {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    setOption(socket.number(), IPPROTO_TCP, TCP_NODELAY, 1);
    if (receiveBuffer != 0) {
        setOption(socket.number(), SOL_SOCKET, SO_RCVBUF, receiveBuffer);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host, &address.sin_addr);
    if (connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
        0) {
        return socket;
    }
    if (errno != EINPROGRESS) {
        return {};
    }
    constexpr int ATTEMPT_MILLISECONDS = 50;
    pollfd state{socket.number(), POLLOUT, 0};
    if (poll(&state, 1, ATTEMPT_MILLISECONDS) != 1 || !isConnected(socket.number())) {
        return {};
    }
    return socket;
}

int remaining(steady_clock::time_point deadline) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    return static_cast<int>(std::max(left, milliseconds(0)).count());
}

} // namespace

Client::Client(std::uint16_t port, int receiveBuffer, milliseconds limit, const char* address) {
    eventually(
        [&] {
            socket_ = tryToConnect(address, port, receiveBuffer);
            return socket_.number() != -1;
        },
        limit);
    if (socket_.number() == -1) {
        throw std::runtime_error("no connection to port " + std::to_string(port));
    }
}

bool Client::send(std::string_view bytes) {
    const auto deadline = steady_clock::now() + PATIENCE;
    while (!bytes.empty()) {
        const ssize_t count = ::send(socket_.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        pollfd state{socket_.number(), POLLOUT, 0};
        if (errno != EAGAIN || poll(&state, 1, remaining(deadline)) != 1) {
            return false;
        }
    }
    return true;
}

std::string Client::receive(std::size_t count, milliseconds limit) {
    const auto deadline = steady_clock::now() + limit;
    std::string text;
    std::array<char, 4096> part;
    while (text.size() < count && waitForInput(deadline)) {
        const ssize_t got =
            recv(socket_.number(), part.data(), std::min(part.size(), count - text.size()), 0);
        if (got <= 0) {
            break;
        }
        text.append(part.data(), static_cast<std::size_t>(got));
    }
    return text;
}

std::string Client::receiveLine(milliseconds limit) {
    const auto deadline = steady_clock::now() + limit;
    std::string line;
    char character = 0;
    while (waitForInput(deadline) && recv(socket_.number(), &character, 1, 0) == 1) {
        if (character == '\n') {
            return line;
        }
        line.push_back(character);
    }
    return line + " <no line end>";
}

std::string Client::request(std::string_view command) {
    send(command);
    return receiveLine();
}

std::string Client::requestError(std::string_view command) {
    send(command);
    std::string text = receive(1);
    while (!text.empty() && (text.size() == 1 || text.back() != '^')) {
        const std::string next = receive(1);
        if (next.empty()) {
            break;
        }
        text += next;
    }
    return text;
}

bool Client::waitForEnd(milliseconds limit) {
    char character = 0;
    if (!waitForInput(steady_clock::now() + limit)) {
        return false;
    }
    const ssize_t count = recv(socket_.number(), &character, 1, 0);
    return count == 0 || (count < 0 && errno == ECONNRESET);
}

void Client::reset() {
    const linger abort{1, 0};
    setsockopt(socket_.number(), SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
    socket_.reset();
}

void Client::close() {
    socket_.reset();
}

void Client::finishSending() {
    shutdown(socket_.number(), SHUT_WR);
}

std::uint16_t Client::localPort() const {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(socket_.number(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

bool Client::waitForInput(steady_clock::time_point deadline) const {
    pollfd state{socket_.number(), POLLIN, 0};
    return poll(&state, 1, remaining(deadline)) == 1;
}

} // namespace support
