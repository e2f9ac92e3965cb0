#include "io/ServerSocket.h"

#include <cerrno>
#include <cstdint>
#include <string>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "io/exception/ServerSocketException.h"

namespace io {

namespace {

// Small on purpose: clients beyond it are better off trying again than waiting unseen.
constexpr int BACKLOG = 1;

// A host that vanished is noticed after 70 seconds of silence: one probe stays unanswered, and the
// user time-out is over by then.
constexpr int KEEP_ALIVE_IDLE_SECONDS = 60;
constexpr int KEEP_ALIVE_INTERVAL_SECONDS = 10;

// A peer that takes nothing for this long is dropped, so that a write to it ends.
constexpr int USER_TIMEOUT_MILLISECONDS = 30000;

void setOption(int descriptor, int level, int option, int value) {
    setsockopt(descriptor, level, option, &value, sizeof(value));
}

} // namespace

ServerSocket::ServerSocket(int port, size_t readLimit)
    : myState(DEFAULT), serverAddress(), serverSocketFileDiscriptor(-1), portNumber(port),
      protocolSize(readLimit), descriptorGuard(serverSocketFileDiscriptor) {
    serverSocketFileDiscriptor = openSocket();
    bindToPort();
    applyClientOptions();
    listen(serverSocketFileDiscriptor, BACKLOG);
}

ServerSocket::~ServerSocket() {
    portNumber = 0;
    closeSocket();
}

Connection* ServerSocket::acceptConnection() {
    myState = ACCEPTING;
    const DescriptorGuard::Use listener(descriptorGuard);
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    int client = -1;
    errno = EBADF;
    if (listener.number() != -1) {
        client = accept(listener.number(), reinterpret_cast<sockaddr*>(&address), &length);
    }
    acceptError = client < 0 ? errno : 0;
    myState = HANDLING;
    return client < 0 ? nullptr : new Connection(client, address, protocolSize);
}

void ServerSocket::closeSocket() {
    descriptorGuard.close();
    myState = CLOSED;
}

bool ServerSocket::isAcceptBlocked() const {
    return acceptError != 0 && acceptError != EINTR && acceptError != ECONNABORTED && !isClosed();
}

int ServerSocket::openSocket() const {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    if (descriptor < 0) {
        throw ServerSocketException("Failed to create ServerSocket on port " +
                                    std::to_string(portNumber));
    }
    return descriptor;
}

/// A failure leaves the socket open: it ends the process.
void ServerSocket::bindToPort() {
    serverAddress.sin_family = AF_INET;
    serverAddress.sin_port = htons(static_cast<std::uint16_t>(portNumber));
    serverAddress.sin_addr.s_addr = htonl(INADDR_ANY);
    setOption(serverSocketFileDiscriptor, SOL_SOCKET, SO_REUSEADDR, 1);
    if (bind(serverSocketFileDiscriptor, reinterpret_cast<const sockaddr*>(&serverAddress),
             sizeof(serverAddress)) < 0) {
        throw ServerSocketException("Failed to bind ServerSocket on port " +
                                    std::to_string(portNumber));
    }
}

/// Every accepted client inherits these, at no call of its own.
void ServerSocket::applyClientOptions() const {
    const int listener = serverSocketFileDiscriptor;
    setOption(listener, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(listener, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(listener, IPPROTO_TCP, TCP_KEEPIDLE, KEEP_ALIVE_IDLE_SECONDS);
    setOption(listener, IPPROTO_TCP, TCP_KEEPINTVL, KEEP_ALIVE_INTERVAL_SECONDS);
    setOption(listener, IPPROTO_TCP, TCP_USER_TIMEOUT, USER_TIMEOUT_MILLISECONDS);
}

} // namespace io
