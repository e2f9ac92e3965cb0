#include "preload/HotplugMonitor.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "preload/BusClient.h"

namespace virtualusb {

HotplugMonitor::HotplugMonitor() {
    int result = 0;
    descriptor_ = callAndKeep({.kind = RequestKind::Monitor}, result);
}

HotplugMonitor::~HotplugMonitor() {
    if (isOpen()) {
        ::close(descriptor_);
    }
}

std::optional<HotplugNotice> HotplugMonitor::receive() {
    HotplugNotice notice;
    const ssize_t received = ::recv(descriptor_, &notice, sizeof notice, MSG_DONTWAIT);
    if (received == static_cast<ssize_t>(sizeof notice)) {
        return notice;
    }
    if (received == 0) {
        silence();
    }
    return std::nullopt;
}

/// With the board process gone, the socket would be readable for ever and libusb's event thread
/// would spin on it: put a descriptor_ that never becomes readable in its place.
void HotplugMonitor::silence() {
    const int quiet = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (quiet >= 0) {
        ::dup3(quiet, descriptor_, O_CLOEXEC);
        ::close(quiet);
    }
}

} // namespace virtualusb
