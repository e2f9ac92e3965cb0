#pragma once

#include <cstdint>
#include <mutex>
#include <string_view>
#include <unordered_set>

#include <linux/usbdevice_fs.h>

#include "protocol/BusProtocol.h"

namespace virtualusb {

/// One opened usbfs node: answers the ioctls that libusb makes on it. The descriptor is a socket to
/// the board, readable when a URB has completed. Safe from any thread. Functions return what the
/// kernel's ioctl would: 0 or more on success, a negative errno on failure.
class DeviceHandle {
public:
    /// Does not take ownership of `descriptor`, which libusb closes itself; `id` is the board's
    /// number for the handle.
    DeviceHandle(int descriptor, int id)
        : descriptor_(descriptor), id_(static_cast<std::uint32_t>(id)) {}

    int control(unsigned long request, void* argument);

    /// Makes the board forget the handle before the descriptor is closed, so that its claims are
    /// gone when close() returns.
    void closing();

private:
    int submit(usbdevfs_urb* urb);
    int discard(usbdevfs_urb* urb);
    int reap(usbdevfs_urb** result, int flags);
    int reapAfterDisconnect(usbdevfs_urb** result);
    int claim(unsigned int interface);
    int release(unsigned int interface);
    int driverName(usbdevfs_getdriver& driver);
    int request(RequestKind kind, std::uint32_t argument = 0) const;
    bool gone() const;
    bool forget(usbdevfs_urb* urb);

    const int descriptor_;
    const std::uint32_t id_;
    std::mutex mutex_; ///< guards the members below
    std::unordered_set<usbdevfs_urb*> inFlight_;
    bool claimed_ = false;
};

} // namespace virtualusb
