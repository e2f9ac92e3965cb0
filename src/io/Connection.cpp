#include "io/Connection.h"

#include <cerrno>
#include <csignal>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "io/Line.h"
#include "io/exception/ConnectionException.h"
#include "log/Logger.h"

namespace io {

namespace {

GpioLog::Logger* const LOGGER = new GpioLog::Logger("Connection");

/// Whether the system gave the peer up, for its time-outs mostly: the peer ended nothing itself.
bool isGivenUp(int error) {
    return error != ECONNRESET && error != EPIPE;
}

} // namespace

Connection::Connection(int fileDescriptor, sockaddr_in address, size_t readLimit)
    : clientAddress(address), connectionFileDiscriptor(fileDescriptor), bytesRead(readLimit),
      descriptorGuard(connectionFileDiscriptor) {}

Connection::~Connection() {
    closeConnection();
}

Connection& Connection::operator<<(std::string text) {
    Line(*this, text, {}).sendWhole();
    return *this;
}

Connection& Connection::operator>>(std::string& target) {
    const DescriptorGuard::Use descriptor(descriptorGuard);
    if (descriptor.number() != -1) {
        std::string buffer(bytesRead + 1, '\0');
        const ssize_t count = read(descriptor.number(), buffer.data(), bytesRead);
        if (count >= 0 && !isClosed()) {
            target = buffer.substr(0, buffer.find('\0'));
            return *this;
        }
        if (count < 0 && isGivenUp(errno)) {
            givenUp = true;
        }
    }
    logFailure("Failed to read from socket connection to: address:[%s], port:[%d]");
    throw ConnectionException("Failed to read from connection");
}

/// Sends what there is room for and takes it off `text`; true when nothing is left.
bool Connection::send(const DescriptorGuard::Use& descriptor, std::string_view& text, int flags) {
    // One that waits would not end in time, and one that raises the signal would do so also when it
    // is this side that closes the connection.
    ssize_t count =
        ::send(descriptor.number(), text.data(), text.size(), flags | MSG_DONTWAIT | MSG_NOSIGNAL);
    // Something else than a socket knows no flags.
    if (count < 0 && errno == ENOTSOCK) {
        count = write(descriptor.number(), text.data(), text.size());
    }
    if (count >= 0) {
        text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EAGAIN && errno != EINTR) {
        failToWrite(errno);
    }
    return text.empty();
}

/// Ends the connection to a client that takes nothing: with a reset, so that it learns of it at
/// once and the system keeps nothing for it.
void Connection::abandon() {
    {
        const DescriptorGuard::Use descriptor(descriptorGuard);
        const linger reset{1, 0};
        setsockopt(descriptor.number(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    }
    closeConnection();
}

/// Raises the signal for a peer that has reset the connection, and only for that one.
void Connection::failToWrite(int error) {
    if (isGivenUp(error)) {
        givenUp = true;
    }
    if (error == EPIPE && !givenUp && !descriptorGuard.isClosed()) {
        static_cast<void>(raise(SIGPIPE));
    }
    logFailure("Failed to write to socket connection to: address:[%s], port:[%d]");
    LOGGER->debug("Failed to write to connection");
    throw ConnectionException("Failed to write to connection");
}

void Connection::logFailure(const char* format) {
    // glibc keeps the text for each thread.
    LOGGER->debug(format, inet_ntoa(clientAddress.sin_addr), clientAddress.sin_port);
}

} // namespace io
