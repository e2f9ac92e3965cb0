#pragma once

#include "Launcher.h"
#include "log/Logger.h"

namespace GpioLog {

/// Logger::debug() for the lines that are written only when debug output is enabled. Without it
/// nothing is formatted; the arguments are evaluated all the same.
template <typename... Arguments>
void debugIfEnabled(Logger& logger, const char* format, Arguments... arguments) {
    if (Launcher::isDebugEnabled()) {
        logger.debug(format, arguments...);
    }
}

} // namespace GpioLog
