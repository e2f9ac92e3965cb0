// The part of libudev that libusb uses, showing a machine whose only USB device is the board.
// The structures are opaque to libusb, so they are this file's own.

#include <cstdio>
#include <memory>
#include <string>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "preload/BusClient.h"

#define EXPORTED extern "C" __attribute__((visibility("default")))

// NOLINTBEGIN(readability-identifier-naming): names of libudev.

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
    int descriptor; ///< brings the board's notices in the place of udev's netlink socket
};

namespace {

std::string nodeOf(unsigned int deviceNumber) {
    char node[sizeof "/dev/bus/usb/4294967295/4294967295"];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03u/%03u", virtualusb::BUS_NUMBER,
                  deviceNumber);
    return node;
}

int deviceNumber() {
    return virtualusb::call({.kind = virtualusb::RequestKind::DeviceNumber}).result;
}

/// With the board process gone, the socket would be readable for ever and libusb's event thread
/// would spin on it: put a descriptor that never becomes readable in its place.
void silence(int descriptor) {
    const int quiet = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (quiet >= 0) {
        ::dup3(quiet, descriptor, O_CLOEXEC);
        ::close(quiet);
    }
}

} // namespace

EXPORTED udev* udev_new() {
    return new udev;
}

EXPORTED udev* udev_unref(udev* context) {
    delete context;
    return nullptr;
}

EXPORTED udev_enumerate* udev_enumerate_new(udev* /*context*/) {
    return new udev_enumerate;
}

EXPORTED udev_enumerate* udev_enumerate_unref(udev_enumerate* enumerate) {
    delete enumerate;
    return nullptr;
}

EXPORTED int udev_enumerate_add_match_subsystem(udev_enumerate* /*enumerate*/,
                                                const char* /*subsystem*/) {
    return 0;
}

EXPORTED int udev_enumerate_add_match_property(udev_enumerate* /*enumerate*/,
                                               const char* /*property*/, const char* /*value*/) {
    return 0;
}

EXPORTED int udev_enumerate_scan_devices(udev_enumerate* enumerate) {
    enumerate->entry.reset();
    if (deviceNumber() >= 0) {
        enumerate->entry = std::make_unique<udev_list_entry>(
            udev_list_entry{std::string("/sys/bus/usb/devices/") + virtualusb::SYSFS_NAME});
    }
    return 0;
}

EXPORTED udev_list_entry* udev_enumerate_get_list_entry(udev_enumerate* enumerate) {
    return enumerate->entry.get();
}

EXPORTED udev_list_entry* udev_list_entry_get_next(udev_list_entry* /*entry*/) {
    return nullptr;
}

EXPORTED const char* udev_list_entry_get_name(udev_list_entry* entry) {
    return entry->name.c_str();
}

EXPORTED udev_device* udev_device_new_from_syspath(udev* /*context*/, const char* /*path*/) {
    const int number = deviceNumber();
    return number < 0 ? nullptr : new udev_device{{}, nodeOf(static_cast<unsigned int>(number))};
}

EXPORTED udev_device* udev_device_unref(udev_device* device) {
    delete device;
    return nullptr;
}

EXPORTED const char* udev_device_get_action(udev_device* device) {
    return device->action.c_str();
}

/// libusb asks this first, also of a device that went before it could be taken by its name.
EXPORTED const char* udev_device_get_devnode(udev_device* device) {
    return device == nullptr ? nullptr : device->node.c_str();
}

EXPORTED const char* udev_device_get_sysname(udev_device* /*device*/) {
    return virtualusb::SYSFS_NAME;
}

EXPORTED udev_monitor* udev_monitor_new_from_netlink(udev* /*context*/, const char* /*name*/) {
    int result = 0;
    const int descriptor =
        virtualusb::callAndKeep({.kind = virtualusb::RequestKind::Monitor}, result);
    return descriptor < 0 ? nullptr : new udev_monitor{descriptor};
}

EXPORTED udev_monitor* udev_monitor_unref(udev_monitor* monitor) {
    ::close(monitor->descriptor);
    delete monitor;
    return nullptr;
}

EXPORTED int udev_monitor_filter_add_match_subsystem_devtype(udev_monitor* /*monitor*/,
                                                             const char* /*subsystem*/,
                                                             const char* /*type*/) {
    return 0;
}

EXPORTED int udev_monitor_enable_receiving(udev_monitor* /*monitor*/) {
    return 0;
}

EXPORTED int udev_monitor_get_fd(udev_monitor* monitor) {
    return monitor->descriptor;
}

EXPORTED udev_device* udev_monitor_receive_device(udev_monitor* monitor) {
    virtualusb::HotplugNotice notice;
    const ssize_t received = ::recv(monitor->descriptor, &notice, sizeof notice, MSG_DONTWAIT);
    if (received == 0) {
        silence(monitor->descriptor);
    }
    if (received != static_cast<ssize_t>(sizeof notice)) {
        return nullptr;
    }
    return new udev_device{notice.added != 0 ? "add" : "remove", nodeOf(notice.deviceNumber)};
}

// NOLINTEND(readability-identifier-naming)
