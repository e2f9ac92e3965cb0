#include "Timing.h"

#include <algorithm>

#include "Program.h"

namespace mqttbridge {

Timing Timing::fromEnvironment() {
    Timing timing;
    bridge::scaleTimes("GPIO_MQTT_TIME_SCALE",
                       {&timing.firstPause, &timing.longestPause, &timing.shortLife,
                        &timing.attemptLimit, &timing.keepAlive, &timing.pingLimit,
                        &timing.homeStatusDelay, &timing.serverRequest, &timing.serverPoll,
                        &timing.serverFirstPause, &timing.serverLongestPause});
    timing.keepAlive = std::max(timing.keepAlive, Duration(5000));
    return timing;
}

} // namespace mqttbridge
