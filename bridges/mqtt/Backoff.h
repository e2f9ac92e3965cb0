#pragma once

#include <chrono>
#include <random>

namespace mqttbridge {

/// Pauses between attempts: each twice the one before, up to a limit, and each shortened by chance
/// by up to a fifth, so that many bridges do not come back in the same moment.
class Backoff {
public:
    using Duration = std::chrono::milliseconds;

    Backoff(Duration first, Duration longest);

    Duration next();

    /// The next pause is the first one again.
    void reset() { pause_ = first_; }

private:
    Duration first_;
    Duration longest_;
    Duration pause_;
    std::minstd_rand random_;
};

} // namespace mqttbridge
