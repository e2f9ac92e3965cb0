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
constexpr std::uint8_t GET_DESCRIPTOR = 6;
constexpr std::uint8_t GET_CONFIGURATION = 8;
constexpr std::size_t SETUP_LENGTH = 8;
constexpr std::uint32_t LAST_ADDRESS = 127;

std::uint16_t word(const std::vector<std::uint8_t>& data, std::size_t offset) {
    return static_cast<std::uint16_t>(data[offset] | (data[offset + 1] << 8U));
}

std::vector<std::uint8_t> line(const std::string& text) {
    std::vector<std::uint8_t> result(text.begin(), text.end());
    result.push_back('\n');
    return result;
}

} // namespace

UsbDevice::UsbDevice(EventLoop& eventLoop, Statistics& counters, Faults& failures, FtdiChip& bridge,
                     Hooks callbacks)
    : loop(eventLoop), statistics(counters), faults(failures), chip(bridge),
      hooks(std::move(callbacks)) {}

void UsbDevice::plug() {
    if (plugged) {
        return;
    }
    number = number % LAST_ADDRESS + 1;
    plugged = true;
    statistics.count("plugs");
    chip.powerOn();
    hooks.poweredOn();
    host->deviceAdded(number);
}

void UsbDevice::unplug() {
    if (!plugged) {
        return;
    }
    plugged = false;
    pullOut = false;
    owner.reset();
    loop.cancel(latencyTimer);
    failTransfers(-ESHUTDOWN);
    host->deviceRemoved(number);
}

std::optional<std::vector<std::uint8_t>> UsbDevice::attribute(const std::string& name) const {
    if (!plugged) {
        return std::nullopt;
    }
    if (name == "descriptors") {
        auto result = descriptors.device();
        const auto configuration = descriptors.configuration();
        result.insert(result.end(), configuration.begin(), configuration.end());
        return result;
    }
    if (name == "busnum") {
        return line(std::to_string(virtualusb::BUS_NUMBER));
    }
    if (name == "devnum") {
        return line(std::to_string(number));
    }
    if (name == "speed") {
        return line("12");
    }
    if (name == "bConfigurationValue") {
        return line("1");
    }
    return std::nullopt;
}

int UsbDevice::open(std::uint32_t deviceNumber) {
    if (!plugged || deviceNumber != number) {
        return -ENOENT;
    }
    if (faults.shouldFail("open")) {
        return -EACCES;
    }
    statistics.count("opens");
    return 0;
}

int UsbDevice::claim(std::uint32_t handle, std::uint32_t interface) {
    if (!plugged) {
        return -ENODEV;
    }
    if (interface != 0) {
        return -EINVAL;
    }
    if (faults.shouldFail("claim") || kernelDriver || (owner && *owner != handle)) {
        statistics.count("refused-claims");
        return -EBUSY;
    }
    owner = handle;
    statistics.count("claims");
    return 0;
}

int UsbDevice::release(std::uint32_t handle, std::uint32_t interface) {
    if (!plugged) {
        return -ENODEV;
    }
    if (interface != 0 || !owner || *owner != handle) {
        return -EINVAL;
    }
    cancelTransfers(handle);
    owner.reset();
    return 0;
}

int UsbDevice::reset() {
    return plugged ? 0 : -ENODEV;
}

void UsbDevice::closed(std::uint32_t handle) {
    std::erase_if(writes, [&](const Urb& urb) { return urb.handle == handle; });
    std::erase_if(reads, [&](const Read& read) { return read.urb.handle == handle; });
    if (owner && *owner == handle) {
        owner.reset();
    }
}

std::string UsbDevice::driverName() const {
    if (kernelDriver) {
        return "ftdi_sio";
    }
    return owner ? "usbfs" : "";
}

int UsbDevice::detachDriver() {
    if (!kernelDriver) {
        return -ENODATA;
    }
    kernelDriver = false;
    statistics.count("driver-detaches");
    return 0;
}

int UsbDevice::attachDriver() {
    if (owner || kernelDriver) {
        return -EBUSY;
    }
    kernelDriver = true;
    return 0;
}

void UsbDevice::submit(Urb urb) {
    statistics.count("urbs");
    if (!plugged) {
        complete(urb, -ESHUTDOWN, 0);
        return;
    }
    const bool isLast = countDownUrbs();
    if (urb.type == USBDEVFS_URB_TYPE_CONTROL) {
        control(urb);
    } else if (urb.endpoint == ENDPOINT_IN) {
        statistics.count("reads");
        reads.push_back({std::move(urb), {}});
    } else if (urb.endpoint == ENDPOINT_OUT) {
        statistics.count("writes");
        writes.push_back(std::move(urb));
    } else {
        complete(urb, -ENOENT, 0);
    }
    if (isLast) {
        unplug();
    }
    service();
}

bool UsbDevice::countDownUrbs() {
    if (!faults.urbsLeft || --*faults.urbsLeft != 0) {
        return false;
    }
    faults.urbsLeft.reset();
    return true;
}

void UsbDevice::control(const Urb& urb) {
    if (urb.data.size() < SETUP_LENGTH) {
        complete(urb, -EINVAL, 0);
        return;
    }
    const FtdiChip::Setup setup{urb.data[0], urb.data[1], word(urb.data, 2), word(urb.data, 4),
                                word(urb.data, 6)};
    const bool isVendor = (setup.requestType & TYPE_MASK) == VENDOR_TYPE;
    const auto answer = isVendor ? chip.vendorRequest(setup) : answerControl(setup);
    const std::size_t length = std::min<std::size_t>(answer.data.size(), setup.length);
    complete(urb, answer.status, length, Bytes(answer.data).first(length));
}

FtdiChip::ControlAnswer UsbDevice::answerControl(const FtdiChip::Setup& setup) const {
    if (setup.request == GET_CONFIGURATION) {
        return {0, {1}};
    }
    if (setup.request != GET_DESCRIPTOR) {
        return {0, {}};
    }
    std::vector<std::uint8_t> data;
    switch (setup.value >> 8U) {
    case 1:
        data = descriptors.device();
        break;
    case 2:
        data = descriptors.configuration();
        break;
    case 3:
        data = descriptors.string(static_cast<std::uint8_t>(setup.value & 0xFFU));
        break;
    default:
        break;
    }
    return {data.empty() ? -EPIPE : 0, data};
}

void UsbDevice::discard(std::uint32_t handle, std::uint64_t id) {
    const auto read = std::find_if(reads.begin(), reads.end(), [&](const Read& candidate) {
        return candidate.urb.handle == handle && candidate.urb.id == id;
    });
    if (read != reads.end()) {
        const Read cancelled = std::move(*read);
        reads.erase(read);
        complete(cancelled.urb, -ENOENT, cancelled.collected.size(), cancelled.collected);
        return;
    }
    const auto write = std::find_if(writes.begin(), writes.end(), [&](const Urb& candidate) {
        return candidate.handle == handle && candidate.id == id;
    });
    if (write != writes.end()) {
        const Urb cancelled = std::move(*write);
        writes.erase(write);
        complete(cancelled, -ENOENT, 0);
    }
}

void UsbDevice::cancelTransfers(std::uint32_t handle) {
    for (const auto& read : std::deque<Read>(reads)) {
        if (read.urb.handle == handle) {
            discard(handle, read.urb.id);
        }
    }
    for (const auto& write : std::deque<Urb>(writes)) {
        if (write.handle == handle) {
            discard(handle, write.id);
        }
    }
}

void UsbDevice::failTransfers(int status) {
    for (const auto& read : std::exchange(reads, {})) {
        complete(read.urb, status, read.collected.size(), read.collected);
    }
    for (const auto& write : std::exchange(writes, {})) {
        complete(write, status, 0);
    }
}

void UsbDevice::service() {
    if (!plugged) {
        return;
    }
    serviceWrites();
    serviceReads();
    if (pullOut) {
        unplug();
    }
}

void UsbDevice::serviceWrites() {
    while (!writes.empty() && !faults.stallWrites && !pullOut && !isTransmitting()) {
        const Urb urb = std::move(writes.front());
        writes.pop_front();
        if (faults.shouldFail("write")) {
            complete(urb, -EPROTO, 0);
            continue;
        }
        const std::size_t taken = takeWritten(urb.data.size());
        statistics.count("bytes-written", taken);
        startTransmitting(taken);
        hooks.fromHost(Bytes(urb.data).first(taken));
        complete(urb, taken == urb.data.size() ? 0 : -EPROTO, taken);
    }
}

/// Whether the serial line is still busy with an earlier write; comes back when it no longer is.
bool UsbDevice::isTransmitting() {
    if (EventLoop::Clock::now() >= transmittingUntil) {
        return false;
    }
    loop.cancel(transmitTimer);
    transmitTimer = loop.at(transmittingUntil, [this] { service(); });
    return true;
}

void UsbDevice::startTransmitting(std::size_t length) {
    if (speed) {
        const std::chrono::nanoseconds byteTime =
            std::chrono::nanoseconds(std::chrono::seconds(1)) / *speed;
        transmittingUntil = EventLoop::Clock::now() + static_cast<std::int64_t>(length) * byteTime;
    }
}

std::size_t UsbDevice::takeWritten(std::size_t length) {
    if (!faults.writtenLeft || *faults.writtenLeft > length) {
        if (faults.writtenLeft) {
            *faults.writtenLeft -= length;
        }
        return length;
    }
    const auto taken = static_cast<std::size_t>(*faults.writtenLeft);
    faults.writtenLeft.reset();
    pullOut = true;
    return taken;
}

void UsbDevice::serviceReads() {
    while (!reads.empty() && !faults.stallReads && !pullOut && serveRead()) {
    }
    armLatencyTimer();
}

bool UsbDevice::serveRead() {
    if (faults.shouldFail("read")) {
        finishRead(-EPROTO);
        return true;
    }
    hooks.wantsData();
    const std::size_t limit = faults.deliveredLeft.value_or(std::numeric_limits<long>::max());
    const auto packet = chip.nextPacket(EventLoop::Clock::now(), limit);
    if (!packet) {
        return false;
    }
    if (faults.deliveredLeft) {
        *faults.deliveredLeft -= packet->size() - FtdiChip::HEADER_LENGTH;
        pullOut = *faults.deliveredLeft == 0;
    }
    append(*packet);
    if (pullOut) {
        faults.deliveredLeft.reset();
    }
    return true;
}

void UsbDevice::append(const FtdiChip::Packet& packet) {
    auto& read = reads.front();
    const std::size_t room = read.urb.length - read.collected.size();
    const std::size_t taken = std::min(room, packet.size());
    read.collected.insert(read.collected.end(), packet.begin(),
                          packet.begin() + static_cast<std::ptrdiff_t>(taken));
    if (taken < packet.size()) {
        finishRead(-EOVERFLOW);
    } else if (packet.size() < FtdiChip::PACKET_LENGTH || taken == room) {
        finishRead(0);
    }
}

void UsbDevice::finishRead(int status) {
    const Read read = std::move(reads.front());
    reads.pop_front();
    complete(read.urb, status, read.collected.size(), read.collected);
}

void UsbDevice::armLatencyTimer() {
    loop.cancel(latencyTimer);
    if (!reads.empty() && !faults.stallReads) {
        latencyTimer = loop.at(chip.statusDue(), [this] { service(); });
    }
}

void UsbDevice::complete(const Urb& urb, int status, std::size_t actualLength, Bytes data) {
    host->completed(urb.handle, urb.id, status, static_cast<std::uint32_t>(actualLength), data);
}
