#pragma once

#include <atomic>
#include <cstddef>

#include <netinet/in.h>

#include "io/Connection.h"
#include "io/DescriptorGuard.h"
#include "lang/Object.h"

namespace io {

enum ServerSocketState {
    DEFAULT = 0,   ///< listening, no accept called yet
    ACCEPTING = 1, ///< a thread waits for a client
    HANDLING = 2,  ///< the last accept has returned, with or without a client
    CLOSED = 3     ///< closed by closeSocket() or the destructor
};

/// The listening IPv4 socket, on every local interface. One thread accepts; any thread may close
/// or ask for the state meanwhile. It logs nothing.
class ServerSocket : public lang::Object {
public:
    /// Binds and listens. Only the low 16 bits of the port count; with 0 the system chooses one.
    /// `protocolSize` becomes the read limit of every client, in bytes. Throws
    /// ServerSocketException when the socket cannot be created or bound.
    ServerSocket(int portNumber, size_t protocolSize);
    ~ServerSocket() override;

    /// Blocks until a client connects; null when accepting failed. The caller owns the result.
    Connection* acceptConnection();

    /// Closes the socket, which ends an accept under way. Harmless when closed.
    void closeSocket();

    ServerSocketState getState() { return myState; }

    /// True from closeSocket() on, whatever an accept that comes too late makes of the state.
    bool isClosed() const { return serverSocketFileDiscriptor == -1; }

    /// True when the last accept failed for want of descriptors or memory, or for another reason
    /// that an accept at once would only meet again.
    bool isAcceptBlocked() const;

private:
    int openSocket() const;
    void bindToPort();
    void applyClientOptions() const;

    std::atomic<ServerSocketState> myState;
    sockaddr_in serverAddress;
    std::atomic<int> serverSocketFileDiscriptor;
    int portNumber;
    size_t protocolSize;
    DescriptorGuard descriptorGuard;
    int acceptError = 0;
};

} // namespace io
