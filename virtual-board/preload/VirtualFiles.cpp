#include "preload/VirtualFiles.h"

#include <cerrno>
#include <charconv>
#include <optional>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

#include "preload/BusClient.h"
#include "preload/HandleTable.h"

namespace virtualusb {

namespace {

constexpr std::string_view SYSFS_DIRECTORY = "/sys/bus/usb/devices/";
constexpr std::string_view DEVICE_DIRECTORY = "/dev/bus/usb/";

/// A file in memory with the given content, positioned at its start.
int openContent(const std::string& content) {
    const int descriptor = ::memfd_create("virtual-usb", MFD_CLOEXEC);
    if (descriptor < 0) {
        return -errno;
    }
    if (::pwrite(descriptor, content.data(), content.size(), 0) !=
        static_cast<ssize_t>(content.size())) {
        ::close(descriptor);
        return -EIO;
    }
    return descriptor;
}

int openAttribute(std::string_view path) {
    const std::string prefix = std::string(SYSFS_NAME) + "/";
    if (!path.starts_with(prefix)) {
        return -ENOENT;
    }
    const Answer answer = call({.kind = RequestKind::ReadAttribute}, path.substr(prefix.size()));
    return answer.result < 0 ? -ENOENT : openContent(answer.payload);
}

std::optional<std::uint32_t> toNumber(std::string_view digits) {
    std::uint32_t number = 0;
    const auto* end = digits.data() + digits.size();
    const auto [rest, error] = std::from_chars(digits.data(), end, number);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

int openDevice(std::string_view path) {
    const auto slash = path.find('/');
    if (slash == std::string_view::npos || toNumber(path.substr(0, slash)) != BUS_NUMBER) {
        return -ENOENT;
    }
    const auto number = toNumber(path.substr(slash + 1));
    if (!number) {
        return -ENOENT;
    }
    int id = 0;
    const int descriptor = callAndKeep({.kind = RequestKind::Open, .argument = *number}, id);
    if (descriptor >= 0) {
        HandleTable::instance().add(descriptor, id);
    }
    return descriptor;
}

} // namespace

std::optional<int> openVirtualFile(std::string_view path) {
    if (path.starts_with(SYSFS_DIRECTORY)) {
        return openAttribute(path.substr(SYSFS_DIRECTORY.size()));
    }
    if (path.starts_with(DEVICE_DIRECTORY)) {
        return openDevice(path.substr(DEVICE_DIRECTORY.size()));
    }
    return std::nullopt;
}

} // namespace virtualusb
