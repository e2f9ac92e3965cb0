#include "LockWatch.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>

#include <pthread.h>

namespace {

// No lock may guard these: they are looked at whenever one is taken.
std::atomic<std::uintptr_t> watchedMonitor = 0;
std::atomic<int> requestCount = 0;

// The mutexes that the thread holds, as often as it holds them.
thread_local std::array<std::uintptr_t, 64> heldHere;
thread_local int heldCount = 0;

std::uintptr_t addressOf(const void* object) {
    return reinterpret_cast<std::uintptr_t>(object);
}

bool isWithin(std::uintptr_t mutex, std::uintptr_t monitor) {
    return mutex >= monitor && mutex < monitor + sizeof(lang::Object);
}

void noteLocked(std::uintptr_t mutex) {
    heldHere.at(static_cast<std::size_t>(heldCount)) = mutex;
    ++heldCount;
}

void noteUnlocked(std::uintptr_t mutex) {
    const auto end = heldHere.begin() + heldCount;
    const auto found = std::find(heldHere.begin(), end, mutex);
    if (found != end) {
        *found = *(end - 1);
        --heldCount;
    }
}

} // namespace

LockWatch::LockWatch(const lang::Object& monitor) {
    requestCount = 0;
    watchedMonitor = addressOf(&monitor);
}

LockWatch::~LockWatch() {
    watchedMonitor = 0;
}

int LockWatch::requests() const {
    return requestCount;
}

bool isHeldHere(const lang::Object& monitor) {
    const auto end = heldHere.begin() + heldCount;
    return std::any_of(heldHere.begin(), end,
                       [&](std::uintptr_t mutex) { return isWithin(mutex, addressOf(&monitor)); });
}

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (isWithin(addressOf(mutex), watchedMonitor)) {
        ++requestCount;
    }
    const int result = __real_pthread_mutex_lock(mutex);
    if (result == 0) {
        noteLocked(addressOf(mutex));
    }
    return result;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    const int result = __real_pthread_mutex_unlock(mutex);
    if (result == 0) {
        noteUnlocked(addressOf(mutex));
    }
    return result;
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
