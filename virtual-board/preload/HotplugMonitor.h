#pragma once

#include <optional>

#include "protocol/BusProtocol.h"

namespace virtualusb {

/// Receives the board's hot-plug notices, in the place of udev's netlink socket. Used by one thread
/// at a time.
class HotplugMonitor {
public:
    /// Subscribes; isOpen() tells whether the board answered.
    HotplugMonitor();
    HotplugMonitor(const HotplugMonitor&) = delete;
    HotplugMonitor& operator=(const HotplugMonitor&) = delete;
    ~HotplugMonitor();

    bool isOpen() const { return descriptor_ >= 0; }

    /// Readable when a notice waits. Owned by the monitor.
    int getDescriptor() const { return descriptor_; }

    /// The next notice, without blocking.
    std::optional<HotplugNotice> receive();

private:
    void silence();

    int descriptor_;
};

} // namespace virtualusb
