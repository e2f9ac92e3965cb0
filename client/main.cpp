#include <exception>
#include <iostream>

#include "Arguments.h"
#include "Command.h"
#include "StopSignals.h"

namespace {

using gpioclient::Cause;

enum ExitStatus { DONE = 0, FAILED = 1, USAGE = 2, NOT_REACHABLE = 3, TIMED_OUT = 4 };

ExitStatus statusOf(const gpioclient::Error& error) {
    switch (error.cause()) {
    case Cause::InvalidArgument:
    case Cause::PinOutOfRange:
    case Cause::Unsupported:
        return USAGE;
    case Cause::TimedOut:
        return TIMED_OUT;
    default:
        return error.isConnectionProblem() ? NOT_REACHABLE : FAILED;
    }
}

const char* adviceFor(Cause cause) {
    switch (cause) {
    case Cause::NameNotFound:
    case Cause::Unreachable:
        return "Check --host and --port, or GPIO_SERVER.";
    case Cause::ConnectionRefused:
        return "Start GpioServer there, or check --host and --port. With a board it listens only "
               "while the board is plugged in.";
    case Cause::ConnectionLost:
        return "The server hangs up when the board is unplugged; try again once it is back.";
    case Cause::TimedOut:
        return "Try again, or wait longer with --timeout.";
    case Cause::ProtocolViolation:
        return "Check that --host and --port lead to a GpioServer.";
    default:
        return nullptr;
    }
}

void printError(const char* message, const char* advice) {
    if (StopSignals::requested()) {
        return;
    }
    std::cerr << "gpio-client: " << message << '\n';
    if (advice != nullptr) {
        std::cerr << "  " << advice << '\n';
    }
}

void addGlobalOptions(CLI::App& program, Settings& settings) {
    program.add_option("--host", settings.host, "Name or address of the server (localhost)")
        ->type_name("HOST");
    program.add_option("--port", settings.port, "TCP port of the server")
        ->type_name("PORT")
        ->check(CLI::Range(1, 65535));
    addParsed(program, "--timeout", settings.timeout, parseDuration,
              "Time for connecting and for each request: 500ms, 2s, 1m (5s)")
        ->type_name("TIME");
    program.add_flag("--json", settings.json, "Print JSON, one value on each line");
    program.add_flag("--numeric", settings.numeric, "Print levels and directions as digits");
    program.add_flag("-q,--quiet", settings.quiet, "Print only what was asked for");
    program.set_version_flag("--version", std::string("gpio-client ") + GPIO_CLIENT_VERSION);
    program.require_subcommand(1);
    program.fallthrough();
    program.footer("Environment: GPIO_SERVER=host:port is used for what --host and --port leave "
                   "open.\nExit status: 0 done, 1 the server answered with an error, 2 usage, "
                   "3 not reachable or\nconnection lost, 4 timed out.");
}

int runProgram(int argc, char** argv) {
    Settings settings;
    CLI::App program("Reads, drives and watches the pins of a GpioServer.", "gpio-client");
    addGlobalOptions(program, settings);
    for (const auto add :
         {addInfo, addGet, addSet, addToggle, addDirection, addMonitor, addWait, addRaw, addPing}) {
        add(program, settings);
    }
    try {
        program.parse(argc, argv);
        return DONE;
    } catch (const CLI::Success& request) { // for help or the version
        return program.exit(request);
    } catch (const CLI::ParseError& error) {
        printError(error.what(), "Run gpio-client --help for the usage.");
        return USAGE;
    }
}

int runAndReport(int argc, char** argv) {
    try {
        return runProgram(argc, argv);
    } catch (const UsageError& error) {
        printError(error.what(), nullptr);
        return USAGE;
    } catch (const gpioclient::Error& error) {
        printError(error.what(), adviceFor(error.cause()));
        return statusOf(error);
    } catch (const std::exception& error) {
        printError(error.what(), nullptr);
        return FAILED;
    }
}

} // namespace

int main(int argc, char** argv) {
    StopSignals::install();
    const int status = runAndReport(argc, argv);
    StopSignals::dieAsRequested();
    return status;
}
