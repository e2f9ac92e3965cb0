#include "support/ServerProcess.h"

#include <optional>
#include <stdexcept>

#include "support/ProcessInfo.h"

namespace support {

ServerOptions::ServerOptions() {
    executable = GPIO_SERVER_EXECUTABLE;
    arguments = {"--port=0", "--test"};
    brokenPipe = BrokenPipe::Ignored;
}

std::uint16_t ServerProcess::port() {
    std::optional<std::uint16_t> found;
    eventually([&] {
        found = listeningPort(pid());
        return found || !isRunning();
    });
    if (!found) {
        throw std::runtime_error("the server does not listen:\n" + output() + error());
    }
    return *found;
}

} // namespace support
