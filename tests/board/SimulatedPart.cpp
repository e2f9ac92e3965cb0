#include "SimulatedPart.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "support/Eventually.h"

bool SimulatedPart::isWanted() {
    const char* const wish = std::getenv("BOARD_FIRMWARE");
    return wish != nullptr && std::string_view(wish) == "real";
}

SimulatedPart::SimulatedPart()
    : process_({.executable = FIRMWARE_SIMULATOR,
                .arguments = {"--elf", FIRMWARE_ELF, "--socket", socket()}}) {
    if (!support::eventually([this] { return std::filesystem::exists(socket() + ".control"); })) {
        throw std::runtime_error("no simulated part: " + process_.error());
    }
}
