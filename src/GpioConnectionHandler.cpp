#include "GpioConnectionHandler.h"

#include <algorithm>

#include "AbstractCommandHandler.h"
#include "GpioConnectionMonitor.h"
#include "exception/CommandException.h"
#include "io/Connection.h"
#include "io/Line.h"
#include "log/Identity.h"
#include "log/Logger.h"
#include "log/OptionalDebug.h"

namespace {

GpioLog::Logger* const LOGGER = new GpioLog::Logger("GpioConnectionHandler");

} // namespace

GpioConnectionHandler::GpioConnectionHandler(io::Connection* client,
                                             AbstractCommandHandler* handler)
    : connection(client), commandHandler(handler) {}

GpioConnectionHandler::~GpioConnectionHandler() {
    connection = nullptr;
    commandHandler = nullptr;
}

void GpioConnectionHandler::start() {
    myThread = std::make_unique<concurrent::Thread>(this, "GPIO Connection Handler");
    myThread->start();
}

void GpioConnectionHandler::stop() {
    connection->closeConnection();
}

void GpioConnectionHandler::run() {
    try {
        serveClient();
    } catch (lang::Exception& problem) {
        LOGGER->error("Exception caught! [%s]", problem.getMessage().c_str());
        connection->closeConnection();
    }
    // Deletes this handler: nothing of it may be touched afterwards.
    connectionMonitor->connectionEnded(connection);
}

bool GpioConnectionHandler::isListeningForInputPinChanges() {
    const bool listening = listeningForInputPinChanges;
    GpioLog::debugIfEnabled(*LOGGER, "[%d] isListeningForInputPinChanges == %d",
                            GpioLog::identityOf(connection), listening ? 1 : 0);
    return listening;
}

void GpioConnectionHandler::serveClient() {
    GpioLog::debugIfEnabled(*LOGGER, "New incoming connection: Start handling commands.");
    bool goingOn = true;
    while (goingOn && connection != nullptr && !connection->isClosed()) {
        try {
            goingOn = serveCommand();
        } catch (CommandException& problem) {
            sendError(problem.getMessage());
        }
    }
}

/// Returns false when the client has ended its input.
bool GpioConnectionHandler::serveCommand() {
    std::string command;
    *connection >> command;
    if (command.empty() || command == "\n") {
        GpioLog::debugIfEnabled(*LOGGER,
                                "EOF reached. Going to wait for a new incoming connection.");
        connection->closeConnection();
        return false;
    }
    if (command.back() == '\n') {
        command.pop_back();
    }
    GpioLog::debugIfEnabled(*LOGGER, "Going to handle command [%s].", command.c_str());
    const std::string result = commandHandler->handleCommand(command);
    updateInterest(result.c_str()[0]);
    io::Line(*connection, result).sendWhole();
    GpioLog::debugIfEnabled(*LOGGER, "Command handled, result was [%s].", result.c_str());
    return true;
}

/// The server hears of the interest before the client gets its answer.
void GpioConnectionHandler::updateInterest(char firstOfAnswer) {
    if (firstOfAnswer != 'L' && firstOfAnswer != 'K') {
        return;
    }
    const bool interested = firstOfAnswer == 'L';
    listeningForInputPinChanges = interested;
    GpioLog::debugIfEnabled(*LOGGER,
                            interested
                                ? "Connection [%d] is interested in Input Pin Changes."
                                : "Connection [%d] is NOT interested in Input Pin Changes anymore.",
                            GpioLog::identityOf(connection));
    connectionMonitor->inputPinListeningInterestUpdated(interested);
}

void GpioConnectionHandler::sendError(const std::string& message) {
    LOGGER->error("Exception caught! [%s]", message.c_str());
    std::string text = message;
    std::replace(text.begin(), text.end(), '^', ' ');
    *connection << "^" + text + "^";
}
