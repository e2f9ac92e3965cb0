#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "board/EventLoop.h"
#include "board/Faults.h"
#include "board/FtdiChip.h"
#include "board/Statistics.h"
#include "board/UsbDescriptors.h"
#include "board/UsbHost.h"

/// A transfer that the host submitted. Control transfers carry their setup packet in front.
struct Urb {
    std::uint32_t handle;
    std::uint64_t id;
    std::uint8_t type; ///< USBDEVFS_URB_TYPE_*
    std::uint8_t endpoint;
    std::size_t length; ///< of the host's buffer
    std::vector<std::uint8_t> data;
};

/// The bridge as the bus sees it: present or not, claimed or not, with transfers queued at its
/// endpoints. Functions that return int give 0 or a negative errno.
class UsbDevice {
public:
    using Bytes = std::span<const std::uint8_t>;

    struct Hooks {
        std::function<void(Bytes)> fromHost; ///< serial bytes for the firmware
        std::function<void()> wantsData;     ///< before the chip packs data for the host
        std::function<void()> poweredOn;
    };

    UsbDevice(EventLoop& loop, Statistics& statistics, Faults& faults, FtdiChip& chip, Hooks hooks);

    /// Must be set before the device is plugged in.
    void setHost(UsbHost* newHost) { host = newHost; }

    void plug();
    void unplug();
    bool isPlugged() const { return plugged; }

    /// Address on the bus; changes with each plug().
    std::uint32_t getNumber() const { return number; }
    void setDescriptors(UsbDescriptors newDescriptors) { descriptors = std::move(newDescriptors); }
    const UsbDescriptors& getDescriptors() const { return descriptors; }

    /// Content of a file that sysfs would show for the device; nothing when there is none.
    std::optional<std::vector<std::uint8_t>> attribute(const std::string& name) const;

    int open(std::uint32_t deviceNumber);
    int claim(std::uint32_t handle, std::uint32_t interface);
    int release(std::uint32_t handle, std::uint32_t interface);
    int reset();
    void closed(std::uint32_t handle);

    /// Name of the driver that holds the interface, empty when none does.
    std::string driverName() const;
    int detachDriver();
    int attachDriver();
    void setKernelDriver(bool bound) { kernelDriver = bound; }

    void submit(Urb urb);
    void discard(std::uint32_t handle, std::uint64_t id);

    /// Serves the queued transfers as far as possible; call after data or faults changed.
    void service();

    /// Bytes a second that leave towards the firmware, nothing for no limit.
    void setSpeed(std::optional<std::uint32_t> bytesPerSecond) { speed = bytesPerSecond; }

    bool isClaimed() const { return owner.has_value(); }
    std::size_t getPendingReads() const { return reads.size(); }
    std::size_t getPendingWrites() const { return writes.size(); }

private:
    struct Read {
        Urb urb;
        std::vector<std::uint8_t> collected;
    };

    void control(const Urb& urb);
    FtdiChip::ControlAnswer answerControl(const FtdiChip::Setup& setup) const;
    void serviceWrites();
    bool isTransmitting();
    void startTransmitting(std::size_t length);
    void serviceReads();
    bool serveRead();
    void append(const FtdiChip::Packet& packet);
    void armLatencyTimer();
    std::size_t takeWritten(std::size_t length);
    void finishRead(int status);
    void complete(const Urb& urb, int status, std::size_t actualLength, Bytes data = {});
    bool countDownUrbs();
    void cancelTransfers(std::uint32_t handle);
    void failTransfers(int status);

    EventLoop& loop;
    Statistics& statistics;
    Faults& faults;
    FtdiChip& chip;
    Hooks hooks;
    UsbHost* host = nullptr;
    UsbDescriptors descriptors{0x6015};
    bool plugged = false;
    bool pullOut = false; ///< a fault asks for it as soon as the transfer at hand is done
    bool kernelDriver = false;
    std::uint32_t number = 0;
    std::optional<std::uint32_t> owner;
    std::deque<Read> reads;
    std::deque<Urb> writes;
    EventLoop::TimerId latencyTimer = 0;
    std::optional<std::uint32_t> speed;
    EventLoop::Clock::time_point transmittingUntil;
    EventLoop::TimerId transmitTimer = 0;
};
