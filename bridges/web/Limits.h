#pragma once

#include <chrono>
#include <cstddef>

namespace webbridge {

/// Every limit of the HTTP side. GPIO_WEB_TIME_SCALE is the variable for bridge::scaleTimes().
struct Limits {
    using Duration = std::chrono::milliseconds;

    std::size_t connections = 256;
    /// Fewer than connections, so that somebody can still switch.
    std::size_t streams = 224;
    std::size_t writes = 16;
    std::size_t delayedRefusals = 4;

    Duration idle{60'000};
    Duration request{10'000};    ///< From its first byte to its last.
    Duration noProgress{10'000}; ///< Without the system taking a byte of what is sent.
    Duration comment{15'000};
    Duration acknowledgement{5000};
    Duration refusalDelay{1000};
    Duration lingering{2000};

    static Limits fromEnvironment();
};

} // namespace webbridge
