#include <cstdlib>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

/// Waits as long as the file "hold-threads" is in the board's directory, and leaves a file "held"
/// there to tell so.
void waitWhileHeld() {
    constexpr useconds_t PAUSE = 5000;
    const char* const variable = std::getenv("VIRTUAL_USB_DIRECTORY");
    const std::string directory = variable != nullptr ? variable : "";
    const std::string hold = directory + "/hold-threads";
    if (access(hold.c_str(), F_OK) != 0) {
        return;
    }
    close(open((directory + "/held").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    while (access(hold.c_str(), F_OK) == 0) {
        usleep(PAUSE);
    }
}

} // namespace

/// Preloaded beneath the server, so that its main thread can be stopped between two accepts: where
/// it starts a client's thread.
extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
               void* argument) noexcept {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto createReally = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    waitWhileHeld();
    return createReally(thread, attributes, entry, argument);
}
