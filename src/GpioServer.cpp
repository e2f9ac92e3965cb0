#include "GpioServer.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include <arpa/inet.h>

#include "concurrent/Thread.h"
#include "io/Connection.h"
#include "io/Line.h"
#include "io/ServerSocket.h"
#include "io/exception/ServerSocketException.h"
#include "log/Identity.h"
#include "log/Logger.h"

namespace {

constexpr long DEVICE_POLL_MICROS = 1000000;

// Lets descriptors and threads come free instead of failing, and logging, as fast as possible.
constexpr long RESOURCE_PAUSE_MICROS = 100000;

// A handler may be waiting for a board that is just being connected; the server need not.
constexpr std::chrono::seconds CLEANUP_PATIENCE(5);

GpioLog::Logger* const LOGGER = new GpioLog::Logger("GpioServer");

/// Whether a step of sending a line went well; a failure is told.
template <typename Step> bool isTaken(io::Line& line, Step step) {
    try {
        std::invoke(step, line);
        return true;
    } catch (lang::Exception& problem) {
        LOGGER->error("Failed to send response to client. Reason: %s",
                      problem.getMessage().c_str());
        return false;
    }
}

/// Those who have no room are waited for together, however many they are. Who takes nothing all
/// that while is dropped, also when there was just enough room for this line: there would be none
/// for the next, and nobody is waited for twice.
void waitForTheSlow(std::vector<io::Line>& lines) {
    const auto deadline = io::Line::Clock::now() + io::Line::PATIENCE;
    while (!std::all_of(lines.begin(), lines.end(), std::mem_fn(&io::Line::isWhole))) {
        const bool inTime = io::Line::waitForRoom(lines, deadline);
        std::erase_if(lines, [inTime](io::Line& line) {
            if (!inTime) {
                isTaken(line, &io::Line::sendOrClose);
                return true;
            }
            return line.hasRoom() && (!isTaken(line, &io::Line::send) || line.isWhole());
        });
    }
}

} // namespace

GpioServer::GpioServer(int port) : portNumber(port) {}

GpioServer::~GpioServer() {
    delete commandHandler;
    delete pinStateMonitor;
}

void GpioServer::setPinStateMonitor(AbstractPinStateMonitor* monitor) {
    pinStateMonitor = monitor;
    if (monitor != nullptr) {
        monitor->setPinStateChangeListener(this);
    }
}

void GpioServer::launchServer() {
    LOGGER->debug("Launching GPIO Server... ");
    if (commandHandler == nullptr || pinStateMonitor == nullptr) {
        throw lang::Exception("GpioServer not correctly configured.");
    }
    while (true) {
        waitForDevice();
        std::unique_ptr<io::ServerSocket> serverSocket = createServerSocket();
        acceptClients(serverSocket);
        LOGGER->error("Closing server-socket (device unavailable).");
        // Nobody gets in any more while the clients inside are dropped.
        closeServerSocket(serverSocket.get());
        cleanupAllConnectionHandlers();
    }
}

void GpioServer::closeServerSocket(void* serverSocket) {
    if (serverSocket != nullptr) {
        static_cast<io::ServerSocket*>(serverSocket)->closeSocket();
    }
}

void GpioServer::connectionEnded(io::Connection* connection) {
    const int identity = GpioLog::identityOf(connection);
    {
        const std::lock_guard<lang::Object> guard(*this);
        LOGGER->debug("Connection [%d] was ended.", identity);
        freeHandler(connection);
    }
    if (!connectionHandlersContainInputPinListeners()) {
        LOGGER->debug("Pause PinStateMonitor.");
        pinStateMonitor->pause();
    }
    LOGGER->debug("Freed memory of Connection [%d].", identity);
}

void GpioServer::inputPinListeningInterestUpdated(bool /*interested*/) {
    if (connectionHandlersContainInputPinListeners()) {
        LOGGER->debug("Resume PinStateMonitor.");
        pinStateMonitor->resume();
    }
}

void GpioServer::pinStateChanged(std::string message) {
    const std::lock_guard<lang::Object> guard(*this);
    std::vector<io::Line> lines;
    for (const auto& [connection, handler] : connectionHandlers) {
        if (handler->isListeningForInputPinChanges()) {
            lines.emplace_back(*connection, message);
            if (!isTaken(lines.back(), &io::Line::send)) {
                lines.pop_back();
            }
        }
    }
    waitForTheSlow(lines);
}

void GpioServer::waitForDevice() {
    while (commandHandler->isDeviceAvailable() == 0) {
        concurrent::Thread::sleep(DEVICE_POLL_MICROS);
    }
}

std::unique_ptr<io::ServerSocket> GpioServer::createServerSocket() {
    LOGGER->debug("Starting to create ServerSocket");
    auto serverSocket =
        std::make_unique<io::ServerSocket>(portNumber, commandHandler->PROTOCOL_SIZE);
    LOGGER->debug("Created ServerSocket on port %d.", portNumber);
    LOGGER->debug("GPIO Server now listening for incoming connections.");
    LOGGER->debug("Launch was successful.");
    return serverSocket;
}

void GpioServer::acceptClients(std::unique_ptr<io::ServerSocket>& serverSocket) {
    // The state will not do: an accept that came too late leaves that of an open socket, and the
    // device may be back already.
    while (commandHandler->isDeviceAvailable() != 0 && serverSocket != nullptr &&
           !serverSocket->isClosed()) {
        try {
            acceptClient(*serverSocket);
        } catch (io::ServerSocketException& problem) {
            LOGGER->error("Problem with ServerSocket! Exception caught [%s].",
                          problem.getMessage().c_str());
            // Closed as well, so that the next socket can have the port.
            serverSocket.reset();
        } catch (lang::Exception& problem) {
            LOGGER->error("Exception caught [%s].", problem.getMessage().c_str());
            throw lang::Exception(problem.getMessage());
        }
    }
}

void GpioServer::acceptClient(io::ServerSocket& serverSocket) {
    // Lent for the time of the accept alone.
    pinStateMonitor->setDeviceDisconnectionCallback(closeServerSocket, &serverSocket);
    std::unique_ptr<io::Connection> connection(serverSocket.acceptConnection());
    pinStateMonitor->setDeviceDisconnectionCallback(nullptr, nullptr);
    if (connection == nullptr) {
        LOGGER->error("Failed to accept incoming connection.");
        if (serverSocket.isAcceptBlocked()) {
            concurrent::Thread::sleep(RESOURCE_PAUSE_MICROS);
        }
        return;
    }
    const sockaddr_in address = connection->getClientAddress();
    LOGGER->debug("Launching connectionHandler for [%d], address:[%s], port:[%d]",
                  GpioLog::identityOf(connection.get()), inet_ntoa(address.sin_addr),
                  address.sin_port);
    serve(std::move(connection));
}

void GpioServer::serve(std::unique_ptr<io::Connection> connection) {
    if (commandHandler->isDeviceAvailable() == 0) {
        LOGGER->debug("Device is not available, closing connection again.");
        connection->closeConnection();
        return;
    }
    LOGGER->debug("Device is available, starting GpioConnectionHandler...");
    io::Connection* const client = connection.get();
    if (!startHandler(std::move(connection))) {
        connectionEnded(client);
        concurrent::Thread::sleep(RESOURCE_PAUSE_MICROS);
    }
}

/// Holds the lock over both, so that no handler ends before it is registered and started.
bool GpioServer::startHandler(std::unique_ptr<io::Connection> connection) {
    auto handler = std::make_unique<GpioConnectionHandler>(connection.get(), commandHandler);
    handler->setConnectionMonitor(this);
    const std::lock_guard<lang::Object> guard(*this);
    // No entry has this key: each goes before its connection is freed.
    connectionHandlers.emplace(connection.get(), handler.get());
    static_cast<void>(connection.release());
    GpioConnectionHandler* const registered = handler.release();
    registered->start();
    return registered->isStarted();
}

/// Call with the lock held.
void GpioServer::freeHandler(io::Connection* connection) {
    Registry::node_type entry = connectionHandlers.extract(connection);
    if (entry.empty()) {
        entry = endingHandlers.extract(connection);
    }
    if (entry.empty()) {
        return;
    }
    delete entry.mapped();
    delete entry.key();
    handlerFreed.notify_all();
}

bool GpioServer::connectionHandlersContainInputPinListeners() {
    bool found = false;
    {
        const std::lock_guard<lang::Object> guard(*this);
        found = std::any_of(
            connectionHandlers.begin(), connectionHandlers.end(),
            [](const auto& entry) { return entry.second->isListeningForInputPinChanges(); });
    }
    if (found) {
        LOGGER->debug("Found a listening connection, returning [true]");
    }
    return found;
}

/// Each handler's own thread frees it, so the lock is released while they end.
void GpioServer::cleanupAllConnectionHandlers() {
    std::unique_lock<lang::Object> guard(*this);
    LOGGER->debug("Cleanup all ConnectionHandlers...");
    pinStateMonitor->pause();
    while (!connectionHandlers.empty()) {
        Registry::node_type entry = connectionHandlers.extract(connectionHandlers.begin());
        entry.key()->closeConnection();
        endingHandlers.insert(std::move(entry));
    }
    handlerFreed.wait_for(guard, CLEANUP_PATIENCE, [this] { return endingHandlers.empty(); });
    LOGGER->debug("Cleanup all ConnectionHandlers - DONE");
}
