#pragma once

namespace support {

#if defined(__SANITIZE_THREAD__)
inline constexpr bool UNDER_THREAD_SANITIZER = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
inline constexpr bool UNDER_THREAD_SANITIZER = true;
#else
inline constexpr bool UNDER_THREAD_SANITIZER = false;
#endif
#else
inline constexpr bool UNDER_THREAD_SANITIZER = false;
#endif

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool UNDER_ADDRESS_SANITIZER = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool UNDER_ADDRESS_SANITIZER = true;
#else
inline constexpr bool UNDER_ADDRESS_SANITIZER = false;
#endif
#else
inline constexpr bool UNDER_ADDRESS_SANITIZER = false;
#endif

inline constexpr bool SANITIZED = UNDER_THREAD_SANITIZER || UNDER_ADDRESS_SANITIZER;

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
