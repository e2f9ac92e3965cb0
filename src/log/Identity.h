#pragma once

#include <cstdint>

namespace GpioLog {

/// The number by which the log names an object: the low half of its address, for "%d".
inline int identityOf(const void* object) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(object));
}

} // namespace GpioLog
