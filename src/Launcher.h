#pragma once

#include <cstddef>
#include <string_view>

#include "exception/LauncherException.h"
#include "lang/Object.h"

class AbstractCommandHandler;
class AbstractPinStateMonitor;
class GpioServer;

/// Turns the command line into a running server, and holds the settings of the whole process.
/// They are written by the constructor alone, before any other thread exists, and read without a
/// lock afterwards; what asks for a setting needs this header alone.
class Launcher : public lang::Object {
public:
    /// Resets the settings and reads the command line; prints the help when it is asked for.
    /// Throws LauncherException when no port was given.
    Launcher(int argc, char** argv);
    Launcher(const Launcher&) = delete;
    Launcher& operator=(const Launcher&) = delete;

    /// Deletes the command handler, the monitor and the server, whose threads must have ended.
    ~Launcher() override;

    /// Builds the system and serves on the calling thread. Returns the exit status, with every
    /// failure logged.
    int launch();

    static void printHelp();

    /// Reports a command line that cannot be used: an error line, then the help.
    static void reportUnusable(LauncherException& problem);

    /// Whether the optional debug lines are wanted.
    static bool isDebugEnabled() { return debugEnabled; }

    /// The pause between two looks at the simulated pins, in microseconds despite its name.
    static long getSleepNanos() { return sleepNanos; }

    static bool isHelpEnabled() { return help; }

private:
    static constexpr std::string_view FTDI = "--ftdi";
    static constexpr std::string_view TEST = "--test";
    static constexpr std::string_view DEBUG = "--debug";
    static constexpr std::string_view PORT = "--port=";
    static constexpr std::string_view SLEEP = "--sleep=";
    static constexpr std::string_view HELP = "--help";
    static constexpr std::string_view RESTART = "--restart";

    static void parseArguments(int argc, char** argv);
    static int getPortNumber() { return portNumber; }
    static bool isTestModeEnabled() { return testModeEnabled; }

    void buildTestBackEnd();
    void buildFtdiBackEnd();

    GpioServer* server = nullptr;
    AbstractCommandHandler* commandHandler = nullptr;
    AbstractPinStateMonitor* pinStateMonitor = nullptr;

    static inline int portNumber = 0;
    static inline bool useFtdiCommandHandler = false;
    static inline bool testModeEnabled = false;
    static inline bool debugEnabled = false;
    static inline long sleepNanos = 0;
    static inline bool help = false;
    static inline bool restart = false;
    static inline size_t usedProtocolSize = 0;
};
