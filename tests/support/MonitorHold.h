#pragma once

#include "lang/Object.h"

namespace support {

/// Whether some thread holds the monitor.
bool isHeld(lang::Object& monitor);

} // namespace support
