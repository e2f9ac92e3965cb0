#pragma once

namespace io {
class Connection;
}

/// Told by each connection handler, on the handler's own thread.
class GpioConnectionMonitor {
public:
    virtual ~GpioConnectionMonitor() = default;

    /// The handler of `connection` ends and asks to be deleted, together with the connection.
    virtual void connectionEnded(io::Connection* connection) = 0;

    /// A client has declared or withdrawn its interest in input changes.
    virtual void inputPinListeningInterestUpdated(bool interested) = 0;
};
