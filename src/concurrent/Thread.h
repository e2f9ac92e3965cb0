#pragma once

#include <string>

#include <pthread.h>

#include "concurrent/Runnable.h"
#include "lang/Object.h"

namespace concurrent {

/// One POSIX thread that runs one Runnable. Not guarded: only the owner calls its members.
/// Deleting a Thread does not stop the thread; the Runnable must live until run() has returned.
class Thread : public lang::Object {
public:
    /// `runnable` stays the caller's. A name of more than 15 characters is kept for getName() but
    /// refused by the platform.
    Thread(Runnable* runnable, std::string name);

    /// Keeps neither work nor name; a thread built this way must not be started.
    explicit Thread(Runnable* runnable);

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Lets the thread run on by itself.
    ~Thread() override;

    /// Starts the thread. A failure is told on standard error and by isStarted() alone.
    void start();

    /// True when start() created a thread, until join().
    bool isStarted() const { return started; }

    /// Waits until run() has returned; does nothing without a thread to wait for.
    void join();

    long getId() { return static_cast<long>(tid); }
    std::string getName() { return name; }

    /// The entry of every thread: runs the Runnable that `argument` points to, if any.
    static void* runnableCaller(void* argument);

    static void yield();

    /// Suspends the calling thread for `micros` microseconds, taken as an unsigned 32-bit count.
    /// A signal ends it early.
    static void sleep(long micros);

private:
    Runnable* runnable;
    std::string name;
    pthread_t tid;
    bool started = false;
};

} // namespace concurrent
