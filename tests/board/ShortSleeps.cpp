#include <dlfcn.h>
#include <unistd.h>

/// Preloaded beneath the server, so that its waits for the board last a tenth of their time.
extern "C" __attribute__((visibility("default"))) int usleep(useconds_t micros) {
    constexpr useconds_t LONG_SLEEP = 100000;
    constexpr useconds_t DIVISOR = 10;
    using Sleep = int (*)(useconds_t);
    static const auto sleepReally = reinterpret_cast<Sleep>(dlsym(RTLD_NEXT, "usleep"));
    return sleepReally(micros < LONG_SLEEP ? micros : micros / DIVISOR);
}
