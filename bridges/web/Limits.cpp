#include "Limits.h"

#include <cstdlib>

namespace webbridge {

Limits Limits::fromEnvironment() {
    Limits limits;
    const char* text = std::getenv("GPIO_WEB_TIME_SCALE");
    const double scale = text == nullptr ? 1 : std::strtod(text, nullptr);
    if (scale > 0 && scale < 1) {
        for (Duration* time : {&limits.idle, &limits.request, &limits.noProgress, &limits.comment,
                               &limits.acknowledgement, &limits.refusalDelay, &limits.lingering}) {
            *time =
                Duration(static_cast<Duration::rep>(static_cast<double>(time->count()) * scale));
        }
    }
    return limits;
}

} // namespace webbridge
