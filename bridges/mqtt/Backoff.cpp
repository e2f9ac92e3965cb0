#include "Backoff.h"

#include <algorithm>

namespace mqttbridge {

Backoff::Backoff(Duration first, Duration longest)
    : first_(first), longest_(longest), pause_(first), random_(std::random_device{}()) {}

Backoff::Duration Backoff::next() {
    const Duration pause = pause_;
    pause_ = std::min(2 * pause_, longest_);
    return pause -
           Duration(std::uniform_int_distribution<Duration::rep>(0, pause.count() / 5)(random_));
}

} // namespace mqttbridge
