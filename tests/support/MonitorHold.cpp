#include "support/MonitorHold.h"

#include <future>

namespace support {

namespace {

// An explicit instantiation may name a private member, and hands it out through a friend.
struct Mutex {
    friend pthread_mutex_t lang::Object::*reveal(Mutex tag);
};
template <auto Member> struct Reveal {
    friend pthread_mutex_t lang::Object::*reveal(Mutex /*tag*/) { return Member; }
};
template struct Reveal<&lang::Object::myMutex>;

} // namespace

/// Another thread tries, since one that holds a monitor may take it again.
bool isHeld(lang::Object& monitor) {
    const auto attempt = [&] {
        pthread_mutex_t& mutex = monitor.*reveal(Mutex());
        const bool taken = pthread_mutex_trylock(&mutex) == 0;
        if (taken) {
            pthread_mutex_unlock(&mutex);
        }
        return !taken;
    };
    return std::async(std::launch::async, attempt).get();
}

} // namespace support
