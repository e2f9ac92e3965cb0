#include "io/DescriptorGuard.h"

#include <sys/socket.h>
#include <unistd.h>

namespace io {

DescriptorGuard::Use::Use(DescriptorGuard& owner, const std::atomic<int>& descriptor)
    : guard(owner) {
    const std::lock_guard<std::mutex> lock(guard.mutex);
    held = descriptor;
    if (held != -1) {
        ++guard.users;
    }
}

DescriptorGuard::Use::~Use() {
    if (held == -1) {
        return;
    }
    const std::lock_guard<std::mutex> lock(guard.mutex);
    if (--guard.users == 0 && guard.closeLater != -1) {
        ::close(guard.closeLater);
        guard.closeLater = -1;
    }
}

int DescriptorGuard::Use::number() const {
    return held;
}

void DescriptorGuard::close(std::atomic<int>& descriptor) {
    const std::lock_guard<std::mutex> lock(mutex);
    const int number = descriptor;
    if (number == -1) {
        return;
    }
    ::shutdown(number, SHUT_RDWR);
    if (users == 0) {
        ::close(number);
    } else {
        closeLater = number;
    }
    descriptor = -1;
}

} // namespace io
