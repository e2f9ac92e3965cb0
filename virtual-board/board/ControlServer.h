#pragma once

#include <functional>
#include <map>
#include <string>

#include "board/Commands.h"
#include "board/EventLoop.h"
#include "board/Listener.h"

/// Takes text commands on the "control" socket and answers each with one line.
class ControlServer {
public:
    /// Listens in `directory`; throws std::system_error when it cannot.
    ControlServer(EventLoop& loop, Commands& commands, const std::string& directory);
    ~ControlServer();

    /// Answers the waits that have come true; call after each round of events.
    void checkWaits();

private:
    /// Whether the values are those waited for.
    using Condition = std::function<bool(const Statistics&)>;

    struct Session {
        std::string received;
        Condition awaited;
        EventLoop::TimerId timeout = 0;
    };

    void accept(int descriptor);
    void receive(int descriptor);
    void runLines(int descriptor);
    void run(int descriptor, const std::string& line);
    void startWait(int descriptor, Commands::Words words);
    void endWait(int descriptor, const std::string& answer);
    void end(int descriptor);
    static Condition condition(const Commands::Words& words);
    static void answer(int descriptor, const std::string& text);

    EventLoop& loop_;
    Commands& commands_;
    std::map<int, Session> sessions_;
    Listener listener_;
};
