#pragma once

namespace support {

#if defined(__SANITIZE_THREAD__)
inline constexpr bool underThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
inline constexpr bool underThreadSanitizer = true;
#else
inline constexpr bool underThreadSanitizer = false;
#endif
#else
inline constexpr bool underThreadSanitizer = false;
#endif

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool underAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool underAddressSanitizer = true;
#else
inline constexpr bool underAddressSanitizer = false;
#endif
#else
inline constexpr bool underAddressSanitizer = false;
#endif

inline constexpr bool sanitized = underThreadSanitizer || underAddressSanitizer;

/// The number of rounds of a long test: `full`, or `reduced` in a build with a sanitizer, which is
/// several times slower.
constexpr int rounds(int full, int reduced) {
    return sanitized ? reduced : full;
}

} // namespace support
