#pragma once

#include <cstddef>
#include <cstdint>

/// What the preload library and the board say to each other on the "bus" socket, a sequenced-packet
/// Unix socket: one message is one structure below, followed by its payload. Both ends run on one
/// machine, so numbers are in its own byte order.
namespace virtualusb {

constexpr const char* DIRECTORY_VARIABLE = "VIRTUAL_USB_DIRECTORY";
constexpr const char* BUS_SOCKET = "bus";
constexpr const char* CONTROL_SOCKET = "control";

constexpr std::uint32_t BUS_NUMBER = 9;
constexpr const char* SYSFS_NAME = "9-1";

/// Longest URB buffer that travels in one message.
constexpr std::size_t MAX_TRANSFER = 65536;

enum class RequestKind : std::uint32_t {
    ReadAttribute, ///< payload: name of a sysfs file; the reply's payload is its content
    DeviceNumber,  ///< reply: the address of the device on the bus, -ENODEV when none
    Open,          ///< argument: address; reply: handle; the connection becomes the handle's
    Monitor,       ///< the connection receives a HotplugNotice for each change from now on
    Close,         ///< the rest of the synchronous ones act on `handle`
    Claim,         ///< argument: the interface
    Release,
    DriverName, ///< the reply's payload is the name of the bound driver, -ENODATA when none
    DetachDriver,
    Submit,  ///< on the handle's own connection; answered by a Completion
    Discard, ///< likewise, names the URB to cancel; no answer of its own
};

struct Request {
    RequestKind kind;
    std::uint32_t handle = 0;
    std::uint32_t argument = 0;
    std::uint8_t transferType = 0;
    std::uint8_t endpoint = 0;
    std::uint64_t urb = 0;
    std::uint32_t length = 0; ///< of the host's buffer
};

struct Reply {
    std::int32_t result; ///< negative errno on failure
};

/// The payload is what an IN transfer brought.
struct Completion {
    std::uint64_t urb;
    std::int32_t status; ///< 0 or a negative errno, as in usbdevfs_urb
    std::uint32_t actualLength;
};

struct HotplugNotice {
    std::uint32_t added; ///< 1: the device appeared, 0: it went away
    std::uint32_t deviceNumber;
};

} // namespace virtualusb
