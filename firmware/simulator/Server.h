#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "Microcontroller.h"

/// Serves the serial line at a Unix socket, and the commands at another whose path ends in
/// ".control". Time follows the clock on the wall, or passes on command only.
class Server {
public:
    enum class Time { Real, Stepped };

    /// Throws std::system_error when it cannot listen.
    Server(Microcontroller& board, std::string path, Time time);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    /// Serves until the command "quit", or until `lifeline` is readable or closed (-1 for none).
    void run(int lifeline);

private:
    using Clock = std::chrono::steady_clock;

    struct Session {
        std::string received;
        bool isWatching = false;
        std::string lastOutputs;
        std::string lastBridgeReset;
    };

    void serveOnce(int lifeline);
    void acceptLine();
    void receiveLine();
    void acceptSession();
    void receiveCommands(int descriptor);
    std::string answer(Session& session, const std::string& line);
    void end(int descriptor);
    void letTimePass();
    void sendBytes();
    void tellWatchers();
    static void write(int descriptor, const std::string& text);

    Microcontroller& board_;
    Commands commands_;
    std::string path_;
    Time time_;
    int lineListener_;
    int controlListener_;
    int line_ = -1; ///< the host at the serial line; without one, what is sent is lost
    std::map<int, Session> sessions_;
    Clock::time_point last_ = Clock::now();
    bool isRunning_ = true;
};
