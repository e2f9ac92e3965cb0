#include "support/ScopedDebug.h"

#include <string>
#include <vector>

#include "Launcher.h"

namespace support {

namespace {

/// The settings are written by a launcher's constructor alone.
void applySettings(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"GpioServer", "--port=0"});
    std::vector<char*> pointers;
    pointers.reserve(arguments.size());
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    const Launcher launcher(static_cast<int>(pointers.size()), pointers.data());
}

} // namespace

ScopedDebug::ScopedDebug() {
    applySettings({"--debug"});
}

ScopedDebug::~ScopedDebug() {
    applySettings({});
}

void setSleepMicros(long micros) {
    applySettings({"--sleep=" + std::to_string(micros)});
}

} // namespace support
