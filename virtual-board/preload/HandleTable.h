#pragma once

#include <memory>
#include <shared_mutex>
#include <unordered_map>

#include "preload/DeviceHandle.h"

namespace virtualusb {

/// Which descriptors of this process are opened virtual devices. Safe from any thread.
class HandleTable {
public:
    /// The table of the process; lives until the process ends, since other libraries close
    /// descriptors while it exits.
    static HandleTable& instance();

    /// `id` is the board's number for the handle.
    void add(int descriptor, int id);

    /// Null for every other descriptor.
    std::shared_ptr<DeviceHandle> find(int descriptor);

    /// Removes and returns the entry; null for every other descriptor.
    std::shared_ptr<DeviceHandle> take(int descriptor);

private:
    std::shared_mutex mutex_; ///< guards `handles_`
    std::unordered_map<int, std::shared_ptr<DeviceHandle>> handles_;
};

} // namespace virtualusb
