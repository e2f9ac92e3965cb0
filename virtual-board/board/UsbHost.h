#pragma once

#include <cstdint>
#include <span>

/// The side that opened the device and submitted transfers to it.
class UsbHost {
public:
    UsbHost() = default;
    UsbHost(const UsbHost&) = delete;
    UsbHost& operator=(const UsbHost&) = delete;
    virtual ~UsbHost() = default;

    /// A transfer of `handle` ended; `data` is what an IN transfer brought.
    virtual void completed(std::uint32_t handle, std::uint64_t urb, int status,
                           std::uint32_t actualLength, std::span<const std::uint8_t> data) = 0;
    virtual void deviceAdded(std::uint32_t number) = 0;
    virtual void deviceRemoved(std::uint32_t number) = 0;
};
