#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "concurrent/Runnable.h"
#include "concurrent/Thread.h"
#include "lang/Object.h"

class AbstractCommandHandler;
class GpioConnectionMonitor;

namespace io {
class Connection;
}

/// Serves one client on a thread of its own, command by command. It owns its thread object alone.
/// Its last act is connectionEnded(), inside which the monitor deletes it.
class GpioConnectionHandler : public lang::Object, public concurrent::Runnable {
public:
    GpioConnectionHandler(io::Connection* connection, AbstractCommandHandler* commandHandler);

    /// Neither closes nor deletes the connection, and does not stop the thread.
    ~GpioConnectionHandler() override;

    /// To be called before start().
    void setConnectionMonitor(GpioConnectionMonitor* monitor) { connectionMonitor = monitor; }

    /// Starts serving. When no thread could be created, isStarted() stays false and
    /// connectionEnded() is not called.
    virtual void start();

    bool isStarted() const { return myThread != nullptr && myThread->isStarted(); }

    /// Closes the connection, which ends the thread.
    virtual void stop();

    void run() override;

    /// Whether the client wants input changes; may be asked from any thread.
    bool isListeningForInputPinChanges();

private:
    void serveClient();
    bool serveCommand();
    void updateInterest(char firstOfAnswer);
    void sendError(const std::string& message);

    std::unique_ptr<concurrent::Thread> myThread;
    io::Connection* connection;
    AbstractCommandHandler* commandHandler;
    GpioConnectionMonitor* connectionMonitor = nullptr;
    std::atomic<bool> listeningForInputPinChanges = false;
};
