#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "board/Board.h"

/// Carries out the text commands that steer the board.
class Commands {
public:
    using Words = std::vector<std::string>;

    /// `openHandles` tells the number of opened handles, `quit` ends the process.
    Commands(Board& board, std::function<std::size_t()> openHandles, std::function<void()> quit);

    /// Runs one command that answers at once. Returns the answer's text; throws
    /// std::invalid_argument with the reason when the command is wrong.
    std::string run(const Words& words);

    /// State and counters by name.
    std::map<std::string, std::uint64_t> snapshot() const;

    /// One paragraph a command, for people.
    static std::string_view help();

    static Words split(const std::string& line);

private:
    using Function = std::string (Commands::*)(const Words&);
    static const std::map<std::string, Function>& table();

    std::string plug(const Words& words);
    std::string unplug(const Words& words);
    std::string unplugAfter(const Words& words);
    std::string inputs(const Words& words);
    std::string outputs(const Words& words);
    std::string log(const Words& words);
    std::string ignore(const Words& words);
    std::string send(const Words& words);
    std::string cut(const Words& words);
    std::string flood(const Words& words);
    std::string firmware(const Words& words);
    std::string product(const Words& words);
    std::string restart(const Words& words);
    std::string stall(const Words& words);
    std::string fail(const Words& words);
    std::string kernelDriver(const Words& words);
    std::string holdShortData(const Words& words);
    std::string speed(const Words& words);
    std::string capacity(const Words& words);
    std::string statistics(const Words& words);
    std::string quitCommand(const Words& words);

    Board& board;
    std::function<std::size_t()> openHandles;
    std::function<void()> quit;
};
