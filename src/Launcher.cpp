#include "Launcher.h"

#include <array>
#include <cstdlib>
#include <iostream>
#include <string_view>

#include "GpioServer.h"
#include "ftdi/FtdiCommandHandler.h"
#include "ftdi/FtdiPinStateMonitor.h"
#include "ftdi/FtdiService.h"
#include "log/Logger.h"
#include "test/TestCommandHandler.h"
#include "test/TestPinStateMonitor.h"

namespace {

constexpr int NO_PORT = -1;
constexpr long DEFAULT_SLEEP = 10000;
constexpr int INVALID_LAUNCH = -1;

GpioLog::Logger* const LOGGER = new GpioLog::Logger("Launcher");

/// The leading number of what follows the option's name, 0 without one; of a larger one its low
/// 32 bits, however wide a long is.
int numberAfter(std::string_view option, const char* argument) {
    constexpr int DECIMAL = 10;
    return static_cast<int>(std::strtoll(argument + option.length(), nullptr, DECIMAL));
}

} // namespace

Launcher::Launcher(int argc, char** argv) {
    portNumber = NO_PORT;
    testModeEnabled = false;
    debugEnabled = false;
    sleepNanos = DEFAULT_SLEEP;
    help = false;
    parseArguments(argc, argv);
    if (help) {
        printHelp();
    } else if (portNumber == NO_PORT) {
        throw LauncherException("Please provide a valid port number.");
    }
}

Launcher::~Launcher() {
    if (server != nullptr) {
        // The server would delete them too.
        server->setCommandHandler(nullptr);
        server->setPinStateMonitor(nullptr);
    }
    delete commandHandler;
    delete pinStateMonitor;
    delete server;
}

int Launcher::launch() {
    try {
        if (isTestModeEnabled()) {
            buildTestBackEnd();
        } else if (useFtdiCommandHandler) {
            buildFtdiBackEnd();
        } else {
            LOGGER->error("Invalid launch");
            return INVALID_LAUNCH;
        }
        server = new GpioServer(getPortNumber());
        server->setCommandHandler(commandHandler);
        server->setPinStateMonitor(pinStateMonitor);
        server->launchServer();
    } catch (lang::Exception& problem) {
        LOGGER->error("Something when wrong!\nException: %s", problem.getMessage().c_str());
    }
    return 0;
}

void Launcher::printHelp() {
    constexpr std::array LINES = {
        "GpioServer version: v2.0.0",
        "Usage: GpioServer --port=[portNumber] [--debug]",
        "                         [--test] [--sleep=[ns]]",
        "",
        "--port=[portNumber]    The port number to listen on for incoming client connections.",
        "--sleep=[Ms]           The sleep time in microseconds used by the 'input pin change "
        "monitor thread'. ",
        "                       The default sleep time is 10000 microseconds",
        "--debug                Prints out debug to the command line.",
        "--test                 Doesn't use the SUSI library, but starts the server in test mode.",
        "",
        "Report bugs to Zarvik",
    };
    for (const char* const line : LINES) {
        std::cout << line << std::endl;
    }
}

void Launcher::reportUnusable(LauncherException& problem) {
    LOGGER->error("%s", problem.getMessage().c_str());
    printHelp();
}

void Launcher::parseArguments(int argc, char** argv) {
    for (int index = 1; index < argc; ++index) {
        const std::string_view argument = argv[index];
        if (argument == TEST) {
            testModeEnabled = true;
        } else if (argument == DEBUG) {
            debugEnabled = true;
        } else if (argument.starts_with(PORT)) {
            portNumber = numberAfter(PORT, argv[index]);
        } else if (argument.starts_with(SLEEP)) {
            sleepNanos = numberAfter(SLEEP, argv[index]);
        } else if (argument == HELP) {
            help = true;
        } else if (argument == FTDI) {
            useFtdiCommandHandler = true;
        } else if (argument == RESTART) {
            restart = true;
        }
    }
}

void Launcher::buildTestBackEnd() {
    LOGGER->debug("Launching in TEST mode.");
    auto* const handler = new TestCommandHandler;
    commandHandler = handler;
    pinStateMonitor = new TestPinStateMonitor(handler, true);
}

/// The service is never freed: the handler and the monitor share it for the life of the process.
void Launcher::buildFtdiBackEnd() {
    LOGGER->debug("Launching in FTDI mode.");
    auto* const service = new FtdiService;
    auto* const handler = new FtdiCommandHandler;
    commandHandler = handler;
    handler->setFtdiService(service);
    auto* const monitor = new FtdiPinStateMonitor(handler, restart);
    pinStateMonitor = monitor;
    monitor->setFtdiService(service);
    monitor->start();
}
