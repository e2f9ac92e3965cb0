#pragma once

#include <optional>
#include <string_view>

namespace virtualusb {

/// Opens the files that libusb looks for below /sys/bus/usb/devices and /dev/bus/usb. Returns
/// nothing when `path` lies elsewhere, else a descriptor that the caller owns or a negative errno.
std::optional<int> openVirtualFile(std::string_view path);

} // namespace virtualusb
