#include "preload/DeviceHandle.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "preload/BusClient.h"
#include "preload/NextFunction.h"

namespace virtualusb {

namespace {

constexpr std::uint32_t CAPABILITIES =
    USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
constexpr unsigned char DIRECTION_IN = 0x80;
constexpr std::size_t SETUP_LENGTH = 8;
constexpr int SPEED_FULL = 2;

bool isControl(const usbdevfs_urb& urb) {
    return urb.type == USBDEVFS_URB_TYPE_CONTROL;
}

/// What the board needs of the buffer: all of it on the way out, the setup packet on the way in.
std::string_view payloadOf(const usbdevfs_urb& urb) {
    const auto* const bytes = static_cast<const char*>(urb.buffer);
    const auto direction = isControl(urb) ? static_cast<unsigned char>(*bytes) : urb.endpoint;
    if ((direction & DIRECTION_IN) == 0) {
        return {bytes, static_cast<std::size_t>(urb.buffer_length)};
    }
    return {bytes, isControl(urb) ? SETUP_LENGTH : 0};
}

bool isAcceptable(const usbdevfs_urb& urb) {
    if (urb.buffer_length < 0 || static_cast<std::size_t>(urb.buffer_length) > MAX_TRANSFER) {
        return false;
    }
    return isControl(urb) ? static_cast<std::size_t>(urb.buffer_length) >= SETUP_LENGTH
                          : urb.type == USBDEVFS_URB_TYPE_BULK;
}

} // namespace

int DeviceHandle::control(unsigned long code, void* argument) {
    switch (code) {
    case USBDEVFS_SUBMITURB:
        return submit(static_cast<usbdevfs_urb*>(argument));
    case USBDEVFS_DISCARDURB:
        return discard(static_cast<usbdevfs_urb*>(argument));
    case USBDEVFS_REAPURB:
        return reap(static_cast<usbdevfs_urb**>(argument), 0);
    case USBDEVFS_REAPURBNDELAY:
        return reap(static_cast<usbdevfs_urb**>(argument), MSG_DONTWAIT);
    case USBDEVFS_GET_CAPABILITIES:
        *static_cast<std::uint32_t*>(argument) = CAPABILITIES;
        return 0;
    case USBDEVFS_CLAIMINTERFACE:
        return claim(*static_cast<unsigned int*>(argument));
    case USBDEVFS_RELEASEINTERFACE:
        return release(*static_cast<unsigned int*>(argument));
    case USBDEVFS_GETDRIVER:
        return driverName(*static_cast<usbdevfs_getdriver*>(argument));
    case USBDEVFS_IOCTL:
        return static_cast<usbdevfs_ioctl*>(argument)->ioctl_code ==
                       static_cast<int>(USBDEVFS_DISCONNECT)
                   ? request(RequestKind::DetachDriver)
                   : -ENOTTY;
    case USBDEVFS_SETCONFIGURATION:
    case USBDEVFS_CLEAR_HALT:
        return gone() ? -ENODEV : 0;
    case USBDEVFS_GET_SPEED:
        return SPEED_FULL;
    default:
        return -ENOTTY;
    }
}

void DeviceHandle::closing() {
    request(RequestKind::Close);
}

int DeviceHandle::request(RequestKind kind, std::uint32_t argument) const {
    return call({.kind = kind, .handle = id_, .argument = argument}).result;
}

bool DeviceHandle::gone() const {
    pollfd entry{descriptor_, POLLRDHUP, 0};
    return VIRTUAL_USB_NEXT(poll)(&entry, 1, 0) > 0;
}

int DeviceHandle::claim(unsigned int interface) {
    const int result = request(RequestKind::Claim, interface);
    if (result == 0) {
        const std::lock_guard guard(mutex_);
        claimed_ = true;
    }
    return result;
}

int DeviceHandle::release(unsigned int interface) {
    {
        const std::lock_guard guard(mutex_);
        claimed_ = false;
    }
    return request(RequestKind::Release, interface);
}

int DeviceHandle::driverName(usbdevfs_getdriver& driver) {
    const Answer answer = call({.kind = RequestKind::DriverName, .handle = id_});
    if (answer.result < 0) {
        return answer.result;
    }
    const std::size_t length = answer.payload.copy(driver.driver, sizeof driver.driver - 1);
    driver.driver[length] = '\0';
    return 0;
}

int DeviceHandle::submit(usbdevfs_urb* urb) {
    if (!isAcceptable(*urb)) {
        return -EINVAL;
    }
    if (gone()) {
        return -ENODEV;
    }
    {
        const std::lock_guard guard(mutex_);
        if (!claimed_ && !isControl(*urb)) {
            return -EINVAL;
        }
        inFlight_.insert(urb);
    }
    const int result = sendRequest(descriptor_,
                                   {.kind = RequestKind::Submit,
                                    .handle = id_,
                                    .transferType = urb->type,
                                    .endpoint = urb->endpoint,
                                    .urb = reinterpret_cast<std::uintptr_t>(urb),
                                    .length = static_cast<std::uint32_t>(urb->buffer_length)},
                                   payloadOf(*urb));
    if (result < 0) {
        forget(urb);
    }
    return result;
}

int DeviceHandle::discard(usbdevfs_urb* urb) {
    {
        const std::lock_guard guard(mutex_);
        if (!inFlight_.contains(urb)) {
            return -EINVAL;
        }
    }
    return sendRequest(descriptor_, {.kind = RequestKind::Discard,
                                     .handle = id_,
                                     .urb = reinterpret_cast<std::uintptr_t>(urb)});
}

bool DeviceHandle::forget(usbdevfs_urb* urb) {
    const std::lock_guard guard(mutex_);
    return inFlight_.erase(urb) != 0;
}

int DeviceHandle::reap(usbdevfs_urb** result, int flags) {
    std::array<char, sizeof(Completion) + MAX_TRANSFER> buffer;
    while (true) {
        const ssize_t received = ::recv(descriptor_, buffer.data(), buffer.size(), flags);
        if (received < 0 && errno == EINTR) {
            continue;
        }
        if (received < 0 && errno == EAGAIN) {
            return -EAGAIN;
        }
        Completion completion;
        if (received < static_cast<ssize_t>(sizeof completion)) {
            return reapAfterDisconnect(result);
        }
        std::memcpy(&completion, buffer.data(), sizeof completion);
        // Only compared with the pointers that were submitted before it is followed.
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        auto* const urb = reinterpret_cast<usbdevfs_urb*>(completion.urb);
        if (!forget(urb)) {
            continue;
        }
        urb->status = completion.status;
        urb->actual_length = static_cast<int>(completion.actualLength);
        const auto room = static_cast<std::size_t>(urb->buffer_length);
        std::memcpy(urb->buffer, buffer.data() + sizeof completion,
                    std::min(static_cast<std::size_t>(received) - sizeof completion, room));
        *result = urb;
        return 0;
    }
}

int DeviceHandle::reapAfterDisconnect(usbdevfs_urb** result) {
    const std::lock_guard guard(mutex_);
    if (inFlight_.empty()) {
        return -ENODEV;
    }
    usbdevfs_urb* const urb = inFlight_.extract(inFlight_.begin()).value();
    urb->status = -ESHUTDOWN;
    urb->actual_length = 0;
    *result = urb;
    return 0;
}

} // namespace virtualusb
