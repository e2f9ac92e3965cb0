#pragma once

#include <chrono>

namespace mqttbridge {

/// Every pause and limit of the bridge. GPIO_MQTT_TIME_SCALE is the variable for
/// bridge::scaleTimes().
struct Timing {
    using Duration = std::chrono::milliseconds;

    Duration firstPause{1000};
    Duration longestPause{60'000};
    /// A connection that ends sooner is suspicious.
    Duration shortLife{30'000};
    /// For looking up the name, and again for TCP, TLS and the broker's answer together.
    Duration attemptLimit{10'000};
    /// The library takes no less than 5 seconds.
    Duration keepAlive{20'000};
    Duration pingLimit{10'000};
    /// Home Assistant's start is answered after a random time of up to this.
    Duration homeStatusDelay{3000};

    Duration serverRequest{5000};
    Duration serverPoll{2500};
    Duration serverFirstPause{500};
    Duration serverLongestPause{5000};

    static Timing fromEnvironment();
};

} // namespace mqttbridge
