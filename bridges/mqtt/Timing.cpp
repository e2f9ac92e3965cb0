#include "Timing.h"

#include <algorithm>
#include <cstdlib>
#include <string>

namespace mqttbridge {

Timing Timing::fromEnvironment() {
    Timing timing;
    const char* text = std::getenv("GPIO_MQTT_TIME_SCALE");
    const double scale = text != nullptr ? std::strtod(text, nullptr) : 1;
    if (!(scale > 0 && scale < 1)) {
        return timing;
    }
    for (Duration* duration :
         {&timing.firstPause, &timing.longestPause, &timing.shortLife, &timing.attemptLimit,
          &timing.keepAlive, &timing.pingLimit, &timing.homeStatusDelay, &timing.serverRequest,
          &timing.serverPoll, &timing.serverFirstPause, &timing.serverLongestPause}) {
        *duration = std::max(Duration(1), Duration(static_cast<Duration::rep>(
                                              static_cast<double>(duration->count()) * scale)));
    }
    timing.keepAlive = std::max(timing.keepAlive, Duration(5000));
    return timing;
}

} // namespace mqttbridge
