#include "Limits.h"

#include "Program.h"

namespace webbridge {

Limits Limits::fromEnvironment() {
    Limits limits;
    bridge::scaleTimes("GPIO_WEB_TIME_SCALE",
                       {&limits.idle, &limits.request, &limits.noProgress, &limits.comment,
                        &limits.acknowledgement, &limits.refusalDelay, &limits.lingering});
    return limits;
}

} // namespace webbridge
