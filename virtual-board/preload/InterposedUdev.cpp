// The part of libudev that libusb uses, showing a machine whose only USB device is the board.
// The structures are opaque to libusb, so they are this file's own.

#include <cstdio>
#include <memory>
#include <string>

#include "preload/BusClient.h"
#include "preload/HotplugMonitor.h"
#include "preload/NextFunction.h"

#define EXPORTED extern "C" __attribute__((visibility("default")))

struct udev {};

struct udev_list_entry {
    std::string name;
};

struct udev_enumerate {
    std::unique_ptr<udev_list_entry> entry;
};

struct udev_device {
    std::string action;
    std::string node;
};

struct udev_monitor {
    virtualusb::HotplugMonitor notices;
};

namespace {

using virtualusb::BusClient;
using virtualusb::RequestKind;

const std::string SYSFS_PATH = std::string("/sys/bus/usb/devices/") + virtualusb::SYSFS_NAME;

std::string nodeOf(unsigned int deviceNumber) {
    char node[sizeof "/dev/bus/usb/4294967295/4294967295"];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03u/%03u", virtualusb::BUS_NUMBER,
                  deviceNumber);
    return node;
}

int deviceNumber() {
    return BusClient::call(RequestKind::DeviceNumber, 0, 0).result;
}

} // namespace

EXPORTED udev* udev_new() {
    return BusClient::enabled() ? new udev : VIRTUAL_USB_NEXT(udev_new)();
}

EXPORTED udev* udev_unref(udev* context) {
    if (!BusClient::enabled()) {
        return VIRTUAL_USB_NEXT(udev_unref)(context);
    }
    delete context;
    return nullptr;
}

EXPORTED udev_enumerate* udev_enumerate_new(udev* context) {
    return BusClient::enabled() ? new udev_enumerate
                                : VIRTUAL_USB_NEXT(udev_enumerate_new)(context);
}

EXPORTED udev_enumerate* udev_enumerate_unref(udev_enumerate* enumerate) {
    if (!BusClient::enabled()) {
        return VIRTUAL_USB_NEXT(udev_enumerate_unref)(enumerate);
    }
    delete enumerate;
    return nullptr;
}

EXPORTED int udev_enumerate_add_match_subsystem(udev_enumerate* enumerate, const char* subsystem) {
    return BusClient::enabled()
               ? 0
               : VIRTUAL_USB_NEXT(udev_enumerate_add_match_subsystem)(enumerate, subsystem);
}

EXPORTED int udev_enumerate_add_match_property(udev_enumerate* enumerate, const char* property,
                                               const char* value) {
    return BusClient::enabled()
               ? 0
               : VIRTUAL_USB_NEXT(udev_enumerate_add_match_property)(enumerate, property, value);
}

EXPORTED int udev_enumerate_scan_devices(udev_enumerate* enumerate) {
    if (!BusClient::enabled()) {
        return VIRTUAL_USB_NEXT(udev_enumerate_scan_devices)(enumerate);
    }
    enumerate->entry.reset();
    if (deviceNumber() >= 0) {
        enumerate->entry = std::make_unique<udev_list_entry>(udev_list_entry{SYSFS_PATH});
    }
    return 0;
}

EXPORTED udev_list_entry* udev_enumerate_get_list_entry(udev_enumerate* enumerate) {
    return BusClient::enabled() ? enumerate->entry.get()
                                : VIRTUAL_USB_NEXT(udev_enumerate_get_list_entry)(enumerate);
}

EXPORTED udev_list_entry* udev_list_entry_get_next(udev_list_entry* entry) {
    return BusClient::enabled() ? nullptr : VIRTUAL_USB_NEXT(udev_list_entry_get_next)(entry);
}

EXPORTED const char* udev_list_entry_get_name(udev_list_entry* entry) {
    return BusClient::enabled() ? entry->name.c_str()
                                : VIRTUAL_USB_NEXT(udev_list_entry_get_name)(entry);
}

EXPORTED udev_device* udev_device_new_from_syspath(udev* context, const char* path) {
    if (!BusClient::enabled()) {
        return VIRTUAL_USB_NEXT(udev_device_new_from_syspath)(context, path);
    }
    const int number = deviceNumber();
    return number < 0 ? nullptr : new udev_device{{}, nodeOf(static_cast<unsigned int>(number))};
}

EXPORTED udev_device* udev_device_unref(udev_device* device) {
    if (!BusClient::enabled()) {
        return VIRTUAL_USB_NEXT(udev_device_unref)(device);
    }
    delete device;
    return nullptr;
}

EXPORTED const char* udev_device_get_action(udev_device* device) {
    return BusClient::enabled() ? device->action.c_str()
                                : VIRTUAL_USB_NEXT(udev_device_get_action)(device);
}

EXPORTED const char* udev_device_get_devnode(udev_device* device) {
    return BusClient::enabled() ? device->node.c_str()
                                : VIRTUAL_USB_NEXT(udev_device_get_devnode)(device);
}

EXPORTED const char* udev_device_get_sysname(udev_device* device) {
    return BusClient::enabled() ? virtualusb::SYSFS_NAME
                                : VIRTUAL_USB_NEXT(udev_device_get_sysname)(device);
}

EXPORTED udev_monitor* udev_monitor_new_from_netlink(udev* context, const char* name) {
    if (!BusClient::enabled()) {
        return VIRTUAL_USB_NEXT(udev_monitor_new_from_netlink)(context, name);
    }
    auto monitor = std::make_unique<udev_monitor>();
    return monitor->notices.isOpen() ? monitor.release() : nullptr;
}

EXPORTED udev_monitor* udev_monitor_unref(udev_monitor* monitor) {
    if (!BusClient::enabled()) {
        return VIRTUAL_USB_NEXT(udev_monitor_unref)(monitor);
    }
    delete monitor;
    return nullptr;
}

EXPORTED int udev_monitor_filter_add_match_subsystem_devtype(udev_monitor* monitor,
                                                             const char* subsystem,
                                                             const char* type) {
    return BusClient::enabled() ? 0
                                : VIRTUAL_USB_NEXT(udev_monitor_filter_add_match_subsystem_devtype)(
                                      monitor, subsystem, type);
}

EXPORTED int udev_monitor_enable_receiving(udev_monitor* monitor) {
    return BusClient::enabled() ? 0 : VIRTUAL_USB_NEXT(udev_monitor_enable_receiving)(monitor);
}

EXPORTED int udev_monitor_get_fd(udev_monitor* monitor) {
    return BusClient::enabled() ? monitor->notices.getDescriptor()
                                : VIRTUAL_USB_NEXT(udev_monitor_get_fd)(monitor);
}

EXPORTED udev_device* udev_monitor_receive_device(udev_monitor* monitor) {
    if (!BusClient::enabled()) {
        return VIRTUAL_USB_NEXT(udev_monitor_receive_device)(monitor);
    }
    const auto notice = monitor->notices.receive();
    if (!notice) {
        return nullptr;
    }
    return new udev_device{notice->added != 0 ? "add" : "remove", nodeOf(notice->deviceNumber)};
}
