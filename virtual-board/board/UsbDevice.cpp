#include "board/UsbDevice.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include <linux/usbdevice_fs.h>

#include "protocol/BusProtocol.h"

namespace {

constexpr std::uint8_t ENDPOINT_IN = 0x81;
constexpr std::uint8_t ENDPOINT_OUT = 0x02;
constexpr std::uint8_t VENDOR_TYPE = 0x40;
constexpr std::uint8_t TYPE_MASK = 0x60;
constexpr std::size_t SETUP_LENGTH = 8;
constexpr std::uint32_t LAST_ADDRESS = 127;
constexpr std::uint16_t OLD_BRIDGE = 0x6001;

} // namespace

UsbDevice::UsbDevice(EventLoop& loop, Statistics& statistics, Faults& faults, FtdiChip& chip,
                     Board board)
    : loop_(loop), statistics_(statistics), faults_(faults), chip_(chip), board_(std::move(board)) {
}

void UsbDevice::plug() {
    if (plugged_) {
        return;
    }
    number_ = number_ % LAST_ADDRESS + 1;
    plugged_ = true;
    chip_.powerOn();
    board_.poweredOn();
    host_.changed(true);
}

void UsbDevice::unplug() {
    if (!plugged_) {
        return;
    }
    plugged_ = false;
    pullOut_ = false;
    owner_.reset();
    loop_.cancel(latencyTimer_);
    endTransfers(-ESHUTDOWN, [](const Urb&) { return true; });
    host_.changed(false);
}

/// Device and configuration, as libusb reads them.
std::vector<std::uint8_t> UsbDevice::descriptors() const {
    const auto low = static_cast<std::uint8_t>(product_ & 0xFFU);
    const auto high = static_cast<std::uint8_t>(product_ >> 8U);
    // By its release number libftdi1 tells the kind of the bridge.
    const std::uint8_t release = product_ == OLD_BRIDGE ? 0x06 : 0x10;
    // clang-format off
    return {
        18, 1,               // length, device descriptor
        0x00, 0x02,          // USB 2.0
        0, 0, 0, 64,         // class is told by the interface; packets of endpoint 0
        0x03, 0x04,          // vendor
        low, high,           // product
        0, release,
        0, 0, 0, 1,          // no strings, 1 configuration
        9, 2, 32, 0, 1, 1, 0, 0xA0, 45,    // 32 bytes, 1 interface, value 1, 90 mA
        9, 4, 0, 0, 2, 0xFF, 0xFF, 0xFF, 0, // interface 0, two endpoints, vendor class
        7, 5, ENDPOINT_IN, 2, 64, 0, 0,    // bulk
        7, 5, ENDPOINT_OUT, 2, 64, 0, 0,
    };
    // clang-format on
}

std::optional<std::string> UsbDevice::attribute(const std::string& name) const {
    const auto bytes = descriptors();
    const std::map<std::string, std::string> files{
        {"descriptors", {bytes.begin(), bytes.end()}},
        {"busnum", std::to_string(virtualusb::BUS_NUMBER) + "\n"},
        {"devnum", std::to_string(number_) + "\n"},
        {"speed", "12\n"},
        {"bConfigurationValue", "1\n"},
    };
    const auto file = files.find(name);
    return plugged_ && file != files.end() ? std::optional(file->second) : std::nullopt;
}

int UsbDevice::claim(std::uint32_t handle, std::uint32_t interface) {
    if (interface != 0) {
        return -EINVAL;
    }
    if (faults_.shouldFail("claim") || kernelDriver_ || (owner_ && *owner_ != handle)) {
        ++statistics_["refused-claims"];
        return -EBUSY;
    }
    owner_ = handle;
    ++statistics_["claims"];
    return 0;
}

void UsbDevice::release(std::uint32_t handle) {
    endTransfers(-ENOENT, [handle](const Urb& urb) { return urb.handle == handle; });
    if (owner_ == handle) {
        owner_.reset();
    }
}

std::string UsbDevice::driverName() const {
    if (kernelDriver_) {
        return "ftdi_sio";
    }
    return owner_ ? "usbfs" : "";
}

int UsbDevice::detachDriver() {
    if (!kernelDriver_) {
        return -ENODATA;
    }
    kernelDriver_ = false;
    ++statistics_["driver-detaches"];
    return 0;
}

void UsbDevice::submit(Urb urb) {
    if (!plugged_) {
        return complete(urb, -ESHUTDOWN);
    }
    if (urb.type == USBDEVFS_URB_TYPE_CONTROL) {
        control(urb);
    } else if (urb.endpoint == ENDPOINT_IN) {
        reads_.push_back(std::move(urb));
    } else if (urb.endpoint == ENDPOINT_OUT) {
        writes_.push_back(std::move(urb));
    } else {
        complete(urb, -ENOENT);
    }
    service();
}

/// Standard requests that reach the device change nothing: libusb has what it asks for from sysfs.
void UsbDevice::control(const Urb& urb) {
    if (urb.data.size() < SETUP_LENGTH) {
        return complete(urb, -EINVAL);
    }
    const bool isVendor = (urb.data[0] & TYPE_MASK) == VENDOR_TYPE;
    const auto value = static_cast<std::uint16_t>(urb.data[2] | (urb.data[3] << 8U));
    const bool isDone = !isVendor || chip_.vendorRequest(urb.data[1], value);
    host_.completed(urb, isDone ? 0 : -EPIPE, 0, {});
}

void UsbDevice::discard(std::uint32_t handle, std::uint64_t id) {
    endTransfers(-ENOENT, [=](const Urb& urb) { return urb.handle == handle && urb.id == id; });
}

void UsbDevice::endTransfers(int status, const std::function<bool(const Urb&)>& isMeant) {
    for (std::deque<Urb>* const queue : {&reads_, &writes_}) {
        for (Urb& urb : std::exchange(*queue, {})) {
            if (isMeant(urb)) {
                complete(urb, status);
            } else {
                queue->push_back(std::move(urb));
            }
        }
    }
}

void UsbDevice::service() {
    if (!plugged_) {
        return;
    }
    serviceWrites();
    serviceReads();
    if (pullOut_) {
        unplug();
    }
}

void UsbDevice::serviceWrites() {
    while (!writes_.empty() && !faults_.stallWrites && !pullOut_) {
        const Urb urb = std::move(writes_.front());
        writes_.pop_front();
        const std::size_t taken = takeWritten(urb.data.size());
        board_.fromHost(Bytes(urb.data).first(taken));
        host_.completed(urb, taken == urb.data.size() ? 0 : -EPROTO, taken, {});
    }
}

std::size_t UsbDevice::takeWritten(std::size_t length) {
    std::optional<std::size_t>& left = faults_.writtenLeft;
    if (!left || *left > length) {
        left = left ? std::optional(*left - length) : std::nullopt;
        return length;
    }
    pullOut_ = true;
    return std::exchange(left, std::nullopt).value();
}

void UsbDevice::serviceReads() {
    while (!reads_.empty() && !faults_.stallReads && !pullOut_ && serveRead()) {
    }
    loop_.cancel(latencyTimer_);
    if (!reads_.empty() && !faults_.stallReads) {
        latencyTimer_ = loop_.at(chip_.statusDue(), [this] { service(); });
    }
}

bool UsbDevice::serveRead() {
    board_.wantsData();
    std::optional<std::size_t>& left = faults_.deliveredLeft;
    const auto packet = chip_.nextPacket(left.value_or(std::numeric_limits<std::size_t>::max()));
    if (!packet) {
        return false;
    }
    if (left && (*left -= packet->size() - FtdiChip::HEADER_LENGTH) == 0) {
        pullOut_ = true;
        left.reset();
    }
    Urb& read = reads_.front();
    const std::size_t room = read.length - read.data.size();
    const std::size_t taken = std::min(room, packet->size());
    read.data.insert(read.data.end(), packet->begin(),
                     packet->begin() + static_cast<std::ptrdiff_t>(taken));
    if (taken < packet->size()) {
        finishRead(-EOVERFLOW);
    } else if (packet->size() < FtdiChip::PACKET_LENGTH || taken == room) {
        finishRead(0);
    }
    return true;
}

void UsbDevice::finishRead(int status) {
    const Urb read = std::move(reads_.front());
    reads_.pop_front();
    complete(read, status);
}

/// Ends a transfer with what it has brought, if it is one that brings anything.
void UsbDevice::complete(const Urb& urb, int status) const {
    const Bytes brought = urb.endpoint == ENDPOINT_IN ? Bytes(urb.data) : Bytes();
    host_.completed(urb, status, brought.size(), brought);
}
