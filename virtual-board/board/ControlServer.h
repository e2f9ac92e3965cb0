#pragma once

#include <map>
#include <optional>
#include <string>

#include "board/Commands.h"
#include "board/Condition.h"
#include "board/EventLoop.h"

/// Takes text commands on the "control" socket and answers each with one line.
class ControlServer {
public:
    /// Listens in `directory`; throws std::system_error when it cannot.
    ControlServer(EventLoop& loop, Commands& commands, const std::string& directory);
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;
    ~ControlServer();

    /// Answers the waits that have come true; call after each round of events.
    void checkWaits();

private:
    struct Session {
        std::string received;
        std::optional<Condition> awaited;
        EventLoop::TimerId timeout = 0;
    };

    void acceptSession();
    void receive(int descriptor);
    void runLines(int descriptor);
    void run(int descriptor, const std::string& line);
    void startWait(int descriptor, Commands::Words words);
    void endWait(int descriptor, const std::string& answer);
    void end(int descriptor);
    static void answer(int descriptor, const std::string& text);

    EventLoop& loop;
    Commands& commands;
    std::string path;
    int listener;
    std::map<int, Session> sessions;
};
