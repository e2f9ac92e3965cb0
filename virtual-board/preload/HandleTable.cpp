#include "preload/HandleTable.h"

#include <mutex>

namespace virtualusb {

HandleTable& HandleTable::instance() {
    static auto* const table = new HandleTable;
    return *table;
}

void HandleTable::add(int descriptor, std::uint32_t handle) {
    const std::unique_lock guard(mutex);
    handles[descriptor] = std::make_shared<DeviceHandle>(descriptor, handle);
}

std::shared_ptr<DeviceHandle> HandleTable::find(int descriptor) {
    const std::shared_lock guard(mutex);
    const auto entry = handles.find(descriptor);
    return entry == handles.end() ? nullptr : entry->second;
}

std::shared_ptr<DeviceHandle> HandleTable::take(int descriptor) {
    const std::unique_lock guard(mutex);
    const auto entry = handles.find(descriptor);
    if (entry == handles.end()) {
        return nullptr;
    }
    auto handle = entry->second;
    handles.erase(entry);
    return handle;
}

} // namespace virtualusb
