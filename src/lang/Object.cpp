#include "lang/Object.h"

#include <cerrno>
#include <ctime>

#include "lang/exception/IllegalMonitorSateException.h"
#include "lang/exception/IllegalUnlockException.h"

namespace lang {

namespace {

void throwWhenInvalid(int result, const char* operation) {
    if (result == EINVAL) {
        throw IllegalMonitorSateException(std::string("Thread not owner of lock or ") + operation +
                                          " not called between lock/unlock calls!");
    }
}

} // namespace

Object::Object() : mutexAttr(), myMutex(), condAttr(), myCondition() {
    pthread_mutexattr_init(&mutexAttr);
    pthread_mutexattr_settype(&mutexAttr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutexattr_setpshared(&mutexAttr, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&myMutex, &mutexAttr);
    pthread_condattr_init(&condAttr);
    pthread_condattr_setpshared(&condAttr, PTHREAD_PROCESS_SHARED);
    pthread_cond_init(&myCondition, nullptr);
}

Object::Object(const Object& /*other*/) : Object() {}

// There is nothing to take over, from itself or another.
// NOLINTNEXTLINE(cert-oop54-cpp)
Object& Object::operator=(const Object& /*other*/) {
    return *this;
}

Object::~Object() {
    pthread_mutex_destroy(&myMutex);
    pthread_cond_destroy(&myCondition);
}

void Object::lock() {
    pthread_mutex_lock(&myMutex);
}

void Object::unlock() {
    if (pthread_mutex_unlock(&myMutex) == EPERM) {
        throw IllegalUnlockException("Trying to unlock a lock not owned by this thread!");
    }
}

void Object::wait() {
    throwWhenInvalid(pthread_cond_wait(&myCondition, &myMutex), "wait");
}

void Object::wait(long timeout) {
    constexpr long MICROS_PER_SECOND = 1000000;
    constexpr long NANOS_PER_MICRO = 1000;
    timespec deadline{};
    deadline.tv_sec = timeout > MICROS_PER_SECOND ? timeout / MICROS_PER_SECOND : 0;
    deadline.tv_nsec = (timeout % MICROS_PER_SECOND) * NANOS_PER_MICRO;
    throwWhenInvalid(pthread_cond_timedwait(&myCondition, &myMutex, &deadline), "wait");
}

void Object::notify() {
    throwWhenInvalid(pthread_cond_signal(&myCondition), "notify");
}

void Object::notifyAll() {
    throwWhenInvalid(pthread_cond_broadcast(&myCondition), "notifyAll");
}

} // namespace lang
