#include "interposed/SystemCalls.h"

#include <cerrno>
#include <utility>

#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

void happen(std::function<void()>& once) {
    if (once) {
        std::exchange(once, nullptr)();
    }
}

/// Whether the test has the call fail; sets errno then.
bool fails(int error) {
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

} // namespace

// The linker sends the calls of this executable here: see --wrap.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument);
int __real_socket(int domain, int type, int protocol);
int __real_accept(int descriptor, sockaddr* address, socklen_t* length);
ssize_t __real_read(int descriptor, void* buffer, size_t size);
ssize_t __real_send(int descriptor, const void* buffer, size_t size, int flags);
int __real_shutdown(int descriptor, int how) noexcept;
int __real_usleep(useconds_t micros);
int __real_sched_yield();

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument) {
    const int result = interposed::threadCreationResult;
    return result != 0 ? result : __real_pthread_create(thread, attributes, entry, argument);
}

int __wrap_socket(int domain, int type, int protocol) {
    return fails(interposed::socketError) ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_accept(int descriptor, sockaddr* address, socklen_t* length) {
    happen(interposed::inTheMidst);
    return fails(interposed::acceptError) ? -1 : __real_accept(descriptor, address, length);
}

int __wrap_shutdown(int descriptor, int how) noexcept {
    const int result = __real_shutdown(descriptor, how);
    happen(interposed::afterShutdown);
    return result;
}

int __wrap_usleep(useconds_t micros) {
    interposed::lastSleep = micros;
    if (interposed::sleepless) {
        __real_sched_yield();
        return 0;
    }
    return __real_usleep(micros);
}

int __wrap_sched_yield() {
    ++interposed::yields;
    return __real_sched_yield();
}

ssize_t __wrap_read(int descriptor, void* buffer, size_t size) {
    happen(interposed::inTheMidst);
    return fails(interposed::readError) ? -1 : __real_read(descriptor, buffer, size);
}

ssize_t __wrap_send(int descriptor, const void* buffer, size_t size, int flags) {
    happen(interposed::inTheMidst);
    return fails(interposed::sendError) ? -1 : __real_send(descriptor, buffer, size, flags);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
