#include "io/Connection.h"

#include <unistd.h>

#include "io/Address.h"
#include "io/exception/ConnectionException.h"
#include "log/Logger.h"

namespace io {

namespace {

GpioLog::Logger* const LOGGER = new GpioLog::Logger("Connection");

} // namespace

Connection::Connection(int fileDescriptor, sockaddr_in address, size_t readLimit)
    : clientAddress(address), connectionFileDiscriptor(fileDescriptor), bytesRead(readLimit),
      descriptorGuard(connectionFileDiscriptor) {}

Connection::~Connection() {
    closeConnection();
}

void Connection::closeConnection() {
    descriptorGuard.close();
}

bool Connection::isClosed() {
    return connectionFileDiscriptor == -1;
}

Connection& Connection::operator<<(std::string text) {
    const DescriptorGuard::Use descriptor(descriptorGuard);
    if (descriptor.number() != -1 && write(descriptor.number(), text.data(), text.length()) >= 0) {
        return *this;
    }
    logFailure("Failed to write to socket connection to: address:[%s], port:[%d]");
    LOGGER->debug("Failed to write to connection");
    throw ConnectionException("Failed to write to connection");
}

Connection& Connection::operator>>(std::string& target) {
    const DescriptorGuard::Use descriptor(descriptorGuard);
    if (descriptor.number() != -1) {
        std::string buffer(bytesRead + 1, '\0');
        const ssize_t count = read(descriptor.number(), buffer.data(), bytesRead);
        if (count >= 0 && !isClosed()) {
            target = buffer.c_str();
            return *this;
        }
    }
    logFailure("Failed to read from socket connection to: address:[%s], port:[%d]");
    throw ConnectionException("Failed to read from connection");
}

sockaddr_in Connection::getClientAddress() {
    return clientAddress;
}

void Connection::logFailure(const char* format) {
    LOGGER->debug(format, dottedDecimal(clientAddress).c_str(), clientAddress.sin_port);
}

} // namespace io
