#include "io/DescriptorGuard.h"

#include <sys/socket.h>
#include <unistd.h>

namespace io {

DescriptorGuard::Use::Use(DescriptorGuard& owner) : guard(owner) {
    const std::lock_guard<std::mutex> lock(guard.mutex);
    held = guard.descriptor;
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

DescriptorGuard::DescriptorGuard(std::atomic<int>& number) : descriptor(number) {}

void DescriptorGuard::close() {
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

bool DescriptorGuard::isClosed() {
    const std::lock_guard<std::mutex> lock(mutex);
    return descriptor == -1;
}

} // namespace io
