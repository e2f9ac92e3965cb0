#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Microcontroller.h"

/// Carries out the text commands that steer the simulated board.
class Commands {
public:
    explicit Commands(Microcontroller& microcontroller) : board_(microcontroller) {}

    /// Runs one command and returns its answer's text; throws std::invalid_argument with the reason
    /// when the command is wrong.
    std::string run(const std::string& line);

    static std::string_view help();

private:
    using Words = std::vector<std::string>;

    void setInputs(const Words& words);
    void toggle(const Words& words);
    void receive(const Words& words);
    std::string sent();
    std::string events();
    std::string statistics() const;

    Microcontroller& board_;
};
