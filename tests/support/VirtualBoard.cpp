#include "support/VirtualBoard.h"

#include <csignal>
#include <stdexcept>
#include <system_error>

#include "protocol/BusProtocol.h"
#include "protocol/ControlClient.h"

namespace support {

namespace {

ProcessOptions optionsFor(const std::string& directory, const std::vector<std::string>& options) {
    ProcessOptions process;
    process.executable = VIRTUAL_BOARD_EXECUTABLE;
    process.arguments = {"--directory", directory};
    process.arguments.insert(process.arguments.end(), options.begin(), options.end());
    return process;
}

} // namespace

VirtualBoard::VirtualBoard(const std::vector<std::string>& options)
    : process_(optionsFor(directory_.path(), options)) {
    const bool answers = eventually([this] {
        try {
            command("stats plugged");
            return true;
        } catch (const std::system_error&) {
            if (process_.isRunning()) {
                return false;
            }
            process_.waitForEnd();
            throw std::runtime_error("no virtual board: " + process_.error());
        }
    });
    if (!answers) {
        throw std::runtime_error("the virtual board does not answer");
    }
}

VirtualBoard::~VirtualBoard() {
    process_.sendSignal(SIGTERM);
    EXPECT_EQ(process_.waitForEnd(), 0) << process_.error();
}

std::string VirtualBoard::command(const std::string& text) const {
    const std::string answer = sendControlCommand(directory_.path(), text);
    if (!answer.starts_with("ok")) {
        throw std::runtime_error(text + ": " + answer);
    }
    return answer.size() > 3 ? answer.substr(3) : std::string();
}

std::uint64_t VirtualBoard::value(const std::string& name) const {
    return std::stoull(command("stats " + name));
}

void VirtualBoard::waitFor(const std::string& condition, std::chrono::milliseconds timeout) const {
    command("wait " + condition + " " + std::to_string(timeout.count()));
}

std::vector<std::string> VirtualBoard::environment() const {
    return {"LD_PRELOAD=" + libraryPath(),
            std::string(virtualusb::DIRECTORY_VARIABLE) + "=" + directory_.path()};
}

std::string VirtualBoard::libraryPath() {
    return VIRTUAL_USB_LIBRARY;
}

} // namespace support
