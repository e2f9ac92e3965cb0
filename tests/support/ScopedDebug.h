#pragma once

#include <string>
#include <vector>

namespace support {

/// Sets the settings of the process as the server does with these arguments. Throws
/// LauncherException when it does.
void readCommandLine(std::vector<std::string> arguments);

/// Turns the optional debug lines on; off again with the object. Only for moments when no thread
/// of the server runs.
class ScopedDebug {
public:
    ScopedDebug();
    ScopedDebug(const ScopedDebug&) = delete;
    ScopedDebug& operator=(const ScopedDebug&) = delete;
    ~ScopedDebug();
};

/// Sets the pause of the simulated monitor, in microseconds.
void setSleepMicros(long micros);

} // namespace support
