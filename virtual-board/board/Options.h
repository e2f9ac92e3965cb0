#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The command line of the board process.
struct Options {
    /// Throws std::invalid_argument with the reason.
    static Options parse(const std::vector<std::string>& words);
    static std::string_view usage();

    std::string directory;
    std::string firmwareSocket; ///< of a simulated microcontroller, empty for the built-in model
    bool showHelp = false;
    bool startsUnplugged = false;
    bool endsWithInput = false;     ///< end when standard input does
    std::vector<std::string> setup; ///< commands to run before the board is plugged in
    bool isControl = false;         ///< send `control` to a running board instead
    std::string control;
};
