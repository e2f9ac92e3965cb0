#pragma once

#include <string_view>

namespace support {

inline constexpr std::string_view SANITIZERS = GPIO_SERVER_SANITIZE;
inline constexpr bool UNDER_THREAD_SANITIZER = SANITIZERS.find("thread") != std::string_view::npos;
inline constexpr bool SANITIZED = !SANITIZERS.empty();

/// Whether an emulator runs the tests, because they were built for another architecture.
#if defined(GPIO_SERVER_EMULATED)
inline constexpr bool EMULATED = true;
#else
inline constexpr bool EMULATED = false;
#endif

/// The number of rounds of a long test: `full`, or `reduced` with a sanitizer or an emulator, which
/// is several times slower.
constexpr int rounds(int full, int reduced) {
    return SANITIZED || EMULATED ? reduced : full;
}

} // namespace support
