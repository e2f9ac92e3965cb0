#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>

#include "micro/Handlers.h"

/// Exported by name, so that the profiler can count from its entry to its return.
extern "C" __attribute__((noinline)) void measuredLoop(AbstractCommandHandler& handler,
                                                       const std::string& command, int count) {
    for (int index = 0; index < count; ++index) {
        if (handler.handleCommand(command).empty()) {
            std::abort();
        }
    }
}

/// Usage: command-loop simulated|board COMMAND COUNT
int main(int argc, char** argv) {
    constexpr int WORDS = 4;
    if (argc != WORDS) {
        std::cerr << "Usage: command-loop simulated|board COMMAND COUNT\n";
        return EXIT_FAILURE;
    }
    const bool onBoard = std::string_view(argv[1]) == "board";
    Handlers handlers;
    AbstractCommandHandler* const handler =
        onBoard ? static_cast<AbstractCommandHandler*>(&handlers.board) : &handlers.simulated;
    constexpr int DECIMAL = 10;
    measuredLoop(*handler, argv[2], static_cast<int>(std::strtol(argv[3], nullptr, DECIMAL)));
    return EXIT_SUCCESS;
}
