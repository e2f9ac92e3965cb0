#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "board/Board.h"

/// Carries out the text commands that steer the board.
class Commands {
public:
    using Words = std::vector<std::string>;

    explicit Commands(Board& board) : board_(board) {}

    /// Runs one command that answers at once. Returns the answer's text; throws
    /// std::invalid_argument with the reason when the command is wrong.
    std::string run(const Words& words);

    /// State and counters by name.
    Statistics snapshot() const { return board_.snapshot(); }

    /// One paragraph a command, for people.
    static std::string_view help();

    static Words split(const std::string& line);

    /// A decimal number within limits; throws std::invalid_argument.
    static std::uint64_t number(const std::string& text, std::uint64_t least, std::uint64_t most);

    /// An hour at the most; throws std::invalid_argument.
    static std::chrono::milliseconds milliseconds(const std::string& text);

private:
    std::string statistics(const Words& names) const;

    Board& board_;
};
