#include "preload/HandleTable.h"

#include <mutex>

namespace virtualusb {

HandleTable& HandleTable::instance() {
    static auto* const table = new HandleTable;
    return *table;
}

void HandleTable::add(int descriptor, int id) {
    const std::unique_lock guard(mutex_);
    handles_[descriptor] = std::make_shared<DeviceHandle>(descriptor, id);
}

std::shared_ptr<DeviceHandle> HandleTable::find(int descriptor) {
    const std::shared_lock guard(mutex_);
    const auto entry = handles_.find(descriptor);
    return entry == handles_.end() ? nullptr : entry->second;
}

std::shared_ptr<DeviceHandle> HandleTable::take(int descriptor) {
    const std::unique_lock guard(mutex_);
    const auto entry = handles_.extract(descriptor);
    return entry.empty() ? nullptr : entry.mapped();
}

} // namespace virtualusb
