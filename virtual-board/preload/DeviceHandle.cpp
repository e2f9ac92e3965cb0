#include "preload/DeviceHandle.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "preload/BusClient.h"
#include "preload/NextFunction.h"

namespace virtualusb {

namespace {

constexpr std::uint32_t CAPABILITIES =
    USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
constexpr unsigned char DIRECTION_IN = 0x80;
constexpr std::size_t SETUP_LENGTH = 8;
constexpr int SPEED_FULL = 2;

bool isIn(const usbdevfs_urb& urb) {
    if (urb.type == USBDEVFS_URB_TYPE_CONTROL) {
        return (*static_cast<const std::uint8_t*>(urb.buffer) & DIRECTION_IN) != 0;
    }
    return (urb.endpoint & DIRECTION_IN) != 0;
}

std::size_t payloadLength(const usbdevfs_urb& urb) {
    const auto length = static_cast<std::size_t>(urb.buffer_length);
    if (!isIn(urb)) {
        return length;
    }
    return urb.type == USBDEVFS_URB_TYPE_CONTROL ? SETUP_LENGTH : 0;
}

bool isAcceptable(const usbdevfs_urb& urb) {
    if (urb.buffer_length < 0 || static_cast<std::size_t>(urb.buffer_length) > MAX_TRANSFER) {
        return false;
    }
    if (urb.type == USBDEVFS_URB_TYPE_CONTROL) {
        return static_cast<std::size_t>(urb.buffer_length) >= SETUP_LENGTH;
    }
    return urb.type == USBDEVFS_URB_TYPE_BULK;
}

Request submission(std::uint32_t handle, const usbdevfs_urb& urb) {
    Request request{};
    request.kind = RequestKind::Submit;
    request.handle = handle;
    request.transferType = urb.type;
    request.endpoint = urb.endpoint;
    request.urb = reinterpret_cast<std::uintptr_t>(&urb);
    request.length = static_cast<std::uint32_t>(urb.buffer_length);
    request.payloadLength = static_cast<std::uint32_t>(payloadLength(urb));
    return request;
}

int sendParts(int descriptor, Request request, void* payload) {
    std::array<iovec, 2> parts{{{&request, sizeof request}, {payload, request.payloadLength}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    while (::sendmsg(descriptor, &message, MSG_NOSIGNAL) < 0) {
        if (errno != EINTR) {
            return -ENODEV;
        }
    }
    return 0;
}

} // namespace

DeviceHandle::DeviceHandle(int deviceDescriptor, std::uint32_t handleId)
    : descriptor(deviceDescriptor), id(handleId) {}

int DeviceHandle::control(unsigned long request, void* argument) {
    switch (request) {
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
    case USBDEVFS_DISCONNECT_CLAIM:
        return disconnectAndClaim(*static_cast<usbdevfs_disconnect_claim*>(argument));
    case USBDEVFS_GETDRIVER:
        return driverName(*static_cast<usbdevfs_getdriver*>(argument));
    case USBDEVFS_IOCTL:
        return driverControl(*static_cast<usbdevfs_ioctl*>(argument));
    case USBDEVFS_RESET:
        return call(RequestKind::Reset, 0);
    case USBDEVFS_SETCONFIGURATION:
    case USBDEVFS_SETINTERFACE:
    case USBDEVFS_CLEAR_HALT:
        return gone() ? -ENODEV : 0;
    case USBDEVFS_GET_SPEED:
        return SPEED_FULL;
    default:
        return -ENOTTY;
    }
}

void DeviceHandle::closing() {
    call(RequestKind::Close, 0);
}

int DeviceHandle::call(RequestKind kind, std::uint32_t argument) const {
    return BusClient::call(kind, id, argument).result;
}

bool DeviceHandle::gone() const {
    pollfd entry{descriptor, POLLRDHUP, 0};
    return VIRTUAL_USB_NEXT(poll)(&entry, 1, 0) > 0;
}

int DeviceHandle::claim(unsigned int interface) {
    const int result = call(RequestKind::Claim, interface);
    if (result == 0) {
        const std::lock_guard guard(mutex);
        claimed = true;
    }
    return result;
}

int DeviceHandle::release(unsigned int interface) {
    {
        const std::lock_guard guard(mutex);
        claimed = false;
    }
    return call(RequestKind::Release, interface);
}

int DeviceHandle::disconnectAndClaim(const usbdevfs_disconnect_claim& request) {
    const int result = call(RequestKind::DetachDriver, request.interface);
    if (result < 0 && result != -ENODATA) {
        return result;
    }
    return claim(request.interface);
}

int DeviceHandle::driverName(usbdevfs_getdriver& driver) {
    const auto answer = BusClient::call(RequestKind::DriverName, id, driver.interface);
    if (answer.result < 0) {
        return answer.result;
    }
    const std::size_t length = std::min(answer.payload.size(), sizeof driver.driver - 1);
    std::memcpy(driver.driver, answer.payload.data(), length);
    driver.driver[length] = '\0';
    return 0;
}

int DeviceHandle::driverControl(const usbdevfs_ioctl& request) {
    const auto interface = static_cast<std::uint32_t>(request.ifno);
    switch (static_cast<unsigned int>(request.ioctl_code)) {
    case USBDEVFS_DISCONNECT:
        return call(RequestKind::DetachDriver, interface);
    case USBDEVFS_CONNECT:
        return call(RequestKind::AttachDriver, interface);
    default:
        return -ENOTTY;
    }
}

int DeviceHandle::submit(usbdevfs_urb* urb) {
    if (!isAcceptable(*urb)) {
        return -EINVAL;
    }
    if (gone()) {
        return -ENODEV;
    }
    bool needsClaim = false;
    {
        const std::lock_guard guard(mutex);
        needsClaim = !claimed && urb->type != USBDEVFS_URB_TYPE_CONTROL;
    }
    // Like the kernel: using an endpoint claims its interface.
    if (needsClaim) {
        if (const int result = claim(0); result < 0) {
            return result;
        }
    }
    {
        const std::lock_guard guard(mutex);
        inFlight.insert(urb);
    }
    const int result = sendParts(descriptor, submission(id, *urb), urb->buffer);
    if (result < 0) {
        forget(urb);
    }
    return result;
}

int DeviceHandle::discard(usbdevfs_urb* urb) {
    {
        const std::lock_guard guard(mutex);
        if (!inFlight.contains(urb)) {
            return -EINVAL;
        }
    }
    Request request{};
    request.kind = RequestKind::Discard;
    request.handle = id;
    request.urb = reinterpret_cast<std::uintptr_t>(urb);
    return sendParts(descriptor, request, nullptr);
}

bool DeviceHandle::forget(usbdevfs_urb* urb) {
    const std::lock_guard guard(mutex);
    return inFlight.erase(urb) != 0;
}

int DeviceHandle::reap(usbdevfs_urb** result, int flags) {
    std::array<std::uint8_t, sizeof(Completion) + MAX_TRANSFER> buffer;
    while (true) {
        const ssize_t received = ::recv(descriptor, buffer.data(), buffer.size(), flags);
        if (received < 0 && errno == EINTR) {
            continue;
        }
        if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return -EAGAIN;
        }
        if (received < static_cast<ssize_t>(sizeof(Completion))) {
            return reapAfterDisconnect(result);
        }
        Completion completion;
        std::memcpy(&completion, buffer.data(), sizeof completion);
        // Only compared with the pointers that were submitted before it is followed.
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        auto* urb = reinterpret_cast<usbdevfs_urb*>(completion.urb);
        if (!forget(urb)) {
            continue;
        }
        finish(urb, completion, buffer.data() + sizeof completion);
        *result = urb;
        return 0;
    }
}

int DeviceHandle::reapAfterDisconnect(usbdevfs_urb** result) {
    usbdevfs_urb* urb = nullptr;
    {
        const std::lock_guard guard(mutex);
        if (inFlight.empty()) {
            return -ENODEV;
        }
        urb = *inFlight.begin();
        inFlight.erase(inFlight.begin());
    }
    finish(urb, {reinterpret_cast<std::uintptr_t>(urb), -ESHUTDOWN, 0, 0, 0}, nullptr);
    *result = urb;
    return 0;
}

void DeviceHandle::finish(usbdevfs_urb* urb, const Completion& completion,
                          const std::uint8_t* data) {
    urb->status = completion.status;
    urb->actual_length = static_cast<int>(completion.actualLength);
    if (completion.payloadLength == 0) {
        return;
    }
    const std::size_t offset = urb->type == USBDEVFS_URB_TYPE_CONTROL ? SETUP_LENGTH : 0;
    const std::size_t room = static_cast<std::size_t>(urb->buffer_length) - offset;
    std::memcpy(static_cast<std::uint8_t*>(urb->buffer) + offset, data,
                std::min<std::size_t>(completion.payloadLength, room));
}

} // namespace virtualusb
