#include "support/ScopedDebug.h"

#include "Launcher.h"

namespace support {

void readCommandLine(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "GpioServer");
    std::vector<char*> pointers;
    pointers.reserve(arguments.size());
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    const Launcher launcher(static_cast<int>(pointers.size()), pointers.data());
}

ScopedDebug::ScopedDebug() {
    readCommandLine({"--port=0", "--debug"});
}

ScopedDebug::~ScopedDebug() {
    readCommandLine({"--port=0"});
}

void setSleepMicros(long micros) {
    readCommandLine({"--port=0", "--sleep=" + std::to_string(micros)});
}

} // namespace support
