// Preloaded into gpio-mqtt: whoever has sent a ping is held up until its answer has long come.
#include <chrono>
#include <string_view>
#include <thread>

#include <sys/uio.h>
#include <unistd.h>

extern "C" ssize_t write(int descriptor, const void* data, size_t size) {
    iovec piece{const_cast<void*>(data), size}; // NOLINT(*-const-cast): only read from
    const ssize_t written = writev(descriptor, &piece, 1);
    constexpr std::string_view PING{"\xc0\0", 2};
    if (std::string_view(static_cast<const char*>(data), size) == PING) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return written;
}
