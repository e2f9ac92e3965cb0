#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <string>

#include "AbstractCommandHandler.h"
#include "AbstractPinStateMonitor.h"
#include "GpioConnectionHandler.h"
#include "GpioConnectionMonitor.h"
#include "PinStateChangeListener.h"
#include "lang/Object.h"

namespace io {
class Connection;
class ServerSocket;
} // namespace io

/// The TCP front: accepts clients while the device is there, gives each a handler, passes change
/// messages on, and drops everybody when the device is lost. The server's own lock guards the
/// registry; the monitor's lock may be taken inside it, never the other way round.
class GpioServer : public lang::Object,
                   public GpioConnectionMonitor,
                   public PinStateChangeListener {
public:
    explicit GpioServer(int portNumber);

    /// Deletes the command handler and the monitor. All handlers' threads must have ended.
    ~GpioServer() override;

    /// The server owns the handler.
    void setCommandHandler(AbstractCommandHandler* handler) { commandHandler = handler; }
    AbstractCommandHandler* getCommandHandler() { return commandHandler; }

    /// The server owns the monitor and becomes its listener.
    void setPinStateMonitor(AbstractPinStateMonitor* monitor);
    AbstractPinStateMonitor* getPinStateMonitor() { return pinStateMonitor; }

    int getPortNumber() { return portNumber; }

    /// Serves on the calling thread; returns only by throwing. Throws lang::Exception when not
    /// configured or when serving failed, io::ServerSocketException when the port is not to be had.
    void launchServer();

    /// Closes the io::ServerSocket given, if any. Lent to the monitor during each accept.
    static void closeServerSocket(void* serverSocket);

    void connectionEnded(io::Connection* connection) override;
    void inputPinListeningInterestUpdated(bool interested) override;

    /// Writes the message and a line end to every client that listens, under the server's lock.
    void pinStateChanged(std::string message) override;

private:
    using Registry = std::map<io::Connection*, GpioConnectionHandler*>;

    void waitForDevice();
    std::unique_ptr<io::ServerSocket> createServerSocket();
    void acceptClients(std::unique_ptr<io::ServerSocket>& serverSocket);
    void acceptClient(io::ServerSocket& serverSocket);
    void serve(std::unique_ptr<io::Connection> connection);
    bool startHandler(std::unique_ptr<io::Connection> connection);
    void freeHandler(io::Connection* connection);
    bool connectionHandlersContainInputPinListeners();
    void cleanupAllConnectionHandlers();

    int portNumber;

    /// The server owns both the connection and the handler of each entry.
    Registry connectionHandlers;

    AbstractPinStateMonitor* pinStateMonitor = nullptr;
    AbstractCommandHandler* commandHandler = nullptr;

    /// Dropped by the clean-up, until their own threads have freed them in connectionEnded().
    Registry endingHandlers;
    std::condition_variable_any handlerFreed;
};
