#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>

#include <netinet/in.h>

#include "io/DescriptorGuard.h"
#include "lang/Object.h"

namespace io {

/// One accepted client. Reads come from one thread, writes from any; writes are not ordered here.
/// closeConnection() may be called from any thread at any moment.
class Connection : public lang::Object {
public:
    /// Takes over the descriptor. `bytesRead` is the most that one read takes.
    Connection(int fileDescriptor, sockaddr_in clientAddress, size_t bytesRead);

    /// Closes the connection. No other thread may be using it any more.
    ~Connection() override;

    /// Ends the reads and writes under way and closes the socket. Harmless when closed.
    void closeConnection() { descriptorGuard.close(); }

    bool isClosed() { return connectionFileDiscriptor == -1; }

    /// Sends `text` with one write, or more when the client has no room for all of it at once.
    /// Throws ConnectionException when the connection is closed or the write fails, after saying
    /// so in the log. A client that has no room for too long has its connection closed: see Line.
    Connection& operator<<(std::string text);

    /// Waits for input and stores what one read takes, up to its first zero byte; nothing at the
    /// end of the stream. Throws ConnectionException when the connection is closed, also while
    /// reading, or the read fails, after saying so in the log.
    Connection& operator>>(std::string& target);

    sockaddr_in getClientAddress() { return clientAddress; }

private:
    friend class Line;

    bool send(const DescriptorGuard::Use& descriptor, std::string_view& text, int flags);
    void abandon();
    [[noreturn]] void failToWrite(int error);
    void logFailure(const char* format);

    sockaddr_in clientAddress;
    std::atomic<int> connectionFileDiscriptor;
    size_t bytesRead;
    DescriptorGuard descriptorGuard;

    /// Whether a call has told that the system gave the peer up, which later calls do not tell.
    std::atomic<bool> givenUp = false;
};

} // namespace io
