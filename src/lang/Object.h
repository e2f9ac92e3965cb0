#pragma once

#include <pthread.h>

namespace lang {

/// Root of almost every class: each instance carries its own monitor, a recursive mutex and one
/// condition variable. Every member may be called from any thread. A copy is an object of its own
/// and gets a fresh monitor. BasicLockable, so std::lock_guard<lang::Object> works on it.
class Object {
public:
    Object();
    Object(const Object& other);
    Object& operator=(const Object& other);
    virtual ~Object();

    /// Blocks until the monitor is free; the owning thread may lock again.
    void lock();

    /// Undoes one lock(). Throws IllegalUnlockException when the caller does not own the monitor.
    void unlock();

    /// Waits for a notification with the monitor released; it is held again on return. May wake
    /// early: callers re-check their own state. Throws IllegalMonitorSateException when refused.
    void wait();

    /// Never blocks for the interval: `timeout` (microseconds) is taken as a point in time counted
    /// from 1970, which has passed. Throws IllegalMonitorSateException when refused.
    void wait(long timeout);

    /// Wakes at most one waiter. Throws IllegalMonitorSateException when refused.
    void notify();

    /// Wakes every waiter. Throws IllegalMonitorSateException when refused.
    void notifyAll();

private:
    pthread_mutexattr_t mutexAttr;
    pthread_mutex_t myMutex;
    pthread_condattr_t condAttr;
    pthread_cond_t myCondition;
};

} // namespace lang
