#include "SimulatedPart.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "support/Eventually.h"

namespace {

std::string makeDirectory() {
    std::string pattern = std::filesystem::temp_directory_path() / "simulated-part-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), pattern);
    }
    return pattern;
}

} // namespace

bool SimulatedPart::isWanted() {
    const char* const wish = std::getenv("BOARD_FIRMWARE");
    return wish != nullptr && std::string_view(wish) == "real";
}

SimulatedPart::SimulatedPart() : directory_(makeDirectory()), process_(options()) {
    if (!support::eventually([this] { return std::filesystem::exists(socket() + ".control"); })) {
        throw std::runtime_error("no simulated part: " + process_.error());
    }
}

SimulatedPart::~SimulatedPart() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

support::ServerOptions SimulatedPart::options() const {
    support::ServerOptions options;
    options.executable = FIRMWARE_SIMULATOR;
    options.arguments = {"--elf", FIRMWARE_ELF, "--socket", socket()};
    return options;
}
