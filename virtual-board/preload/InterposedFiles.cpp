// The functions of the C library through which libusb reaches usbfs and sysfs.

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/statfs.h>
#include <unistd.h>

#include "preload/HandleTable.h"
#include "preload/NextFunction.h"
#include "preload/VirtualFiles.h"

#define EXPORTED extern "C" __attribute__((visibility("default")))

// What a fortified open() calls; glibc declares them nowhere.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)

namespace {

using virtualusb::HandleTable;
using virtualusb::openVirtualFile;

int resultOf(int value) {
    if (value >= 0) {
        return value;
    }
    errno = -value;
    return -1;
}

bool isVirtual(const pollfd& entry) {
    return HandleTable::instance().find(entry.fd) != nullptr;
}

/// usbfs says "a URB can be reaped" with POLLOUT; on the socket beneath that is POLLIN.
short toSocketEvents(short events) {
    return static_cast<short>(POLLRDHUP | ((events & POLLOUT) != 0 ? POLLIN : 0));
}

short fromSocketEvents(short events) {
    int result = 0;
    if ((events & POLLIN) != 0) {
        result |= POLLOUT;
    }
    if ((events & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
        result |= POLLERR | POLLHUP;
    }
    return static_cast<short>(result | (events & POLLNVAL));
}

int pollTranslated(pollfd* entries, nfds_t count, int timeout) {
    std::vector<pollfd> translated(entries, entries + count);
    for (pollfd& entry : translated) {
        entry.events = isVirtual(entry) ? toSocketEvents(entry.events) : entry.events;
    }
    const int ready = VIRTUAL_USB_NEXT(poll)(translated.data(), count, timeout);
    for (nfds_t index = 0; index < count; ++index) {
        const short events = translated[index].revents;
        entries[index].revents = isVirtual(entries[index]) ? fromSocketEvents(events) : events;
    }
    return ready;
}

mode_t modeArgument(int flags, va_list arguments) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t)
                                                                      : 0;
}

} // namespace

EXPORTED int open64(const char* path, int flags, ...) {
    if (const auto result = openVirtualFile(path)) {
        return resultOf(*result);
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeArgument(flags, arguments);
    va_end(arguments);
    return VIRTUAL_USB_NEXT(open64)(path, flags, mode);
}

/// Where the two differ, on 32 bits, this one only opens larger files than it is asked to.
EXPORTED int open(const char* path, int flags, ...) __attribute__((alias("open64")));

EXPORTED int __open64_2(const char* path, int flags) {
    const auto result = openVirtualFile(path);
    return result ? resultOf(*result) : VIRTUAL_USB_NEXT(__open64_2)(path, flags);
}

EXPORTED int __open_2(const char* path, int flags) __attribute__((alias("__open64_2")));

EXPORTED int close(int descriptor) {
    // Out of the table first: the number may be reused as soon as it is closed.
    if (const auto handle = HandleTable::instance().take(descriptor)) {
        handle->closing();
    }
    return VIRTUAL_USB_NEXT(close)(descriptor);
}

EXPORTED int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (const auto handle = HandleTable::instance().find(descriptor)) {
        return resultOf(handle->control(request, argument));
    }
    return VIRTUAL_USB_NEXT(ioctl)(descriptor, request, argument);
}

EXPORTED int poll(pollfd* entries, nfds_t count, int timeout) {
    return std::any_of(entries, entries + count, isVirtual)
               ? pollTranslated(entries, count, timeout)
               : VIRTUAL_USB_NEXT(poll)(entries, count, timeout);
}

/// libusb wants sysfs beneath /sys, which a container may lack.
EXPORTED int statfs(const char* path, struct statfs* result) noexcept {
    if (std::strcmp(path, "/sys") == 0) {
        *result = {};
        result->f_type = SYSFS_MAGIC;
        return 0;
    }
    return VIRTUAL_USB_NEXT(statfs)(path, result);
}
