#include "concurrent/Thread.h"

#include <utility>

#include <sched.h>
#include <unistd.h>

#include "log/StandardStreams.h"

namespace concurrent {

Thread::Thread(Runnable* work, std::string title) : runnable(work), name(std::move(title)), tid() {}

Thread::Thread(Runnable* /*work*/) : runnable(nullptr), tid() {}

Thread::~Thread() {
    if (started) {
        pthread_detach(tid);
    }
    runnable = nullptr;
}

void Thread::start() {
    const int rc = pthread_create(&tid, nullptr, runnableCaller, runnable);
    started = rc == 0;
    if (started) {
        pthread_setname_np(tid, name.c_str());
        return;
    }
    GpioLog::writeWhole(STDERR_FILENO, "Failed to set thread name to '" + name + "'.[" +
                                           std::to_string(rc) + "]\n");
}

void Thread::join() {
    if (started) {
        started = false;
        pthread_join(tid, nullptr);
    }
}

void* Thread::runnableCaller(void* argument) {
    if (argument != nullptr) {
        static_cast<Runnable*>(argument)->run();
    }
    return nullptr;
}

void Thread::yield() {
    sched_yield();
}

void Thread::sleep(long micros) {
    usleep(static_cast<useconds_t>(micros));
}

} // namespace concurrent
