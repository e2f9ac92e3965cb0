#pragma once

#include <chrono>
#include <thread>

namespace support {

/// How long a test waits for what must happen. Only a failing test ever waits that long.
inline constexpr std::chrono::seconds PATIENCE(30);

/// The same, for poll().
inline constexpr int PATIENCE_MILLISECONDS = std::chrono::milliseconds(PATIENCE).count();

/// Asks `condition` again and again until it holds; false when `limit` has passed first.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = PATIENCE) {
    constexpr std::chrono::milliseconds PAUSE(2);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(PAUSE);
    }
    return true;
}

} // namespace support
