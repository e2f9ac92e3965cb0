#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "board/EventLoop.h"
#include "board/Faults.h"
#include "board/FtdiChip.h"
#include "board/Statistics.h"

/// A transfer that the host submitted. Control transfers carry their setup packet in front.
struct Urb {
    std::uint32_t handle;
    std::uint64_t id;
    std::uint8_t type; ///< USBDEVFS_URB_TYPE_*
    std::uint8_t endpoint;
    std::size_t length;             ///< of the host's buffer
    std::vector<std::uint8_t> data; ///< to the board, or what came from it so far
};

/// The bridge as the bus sees it: present or not, claimed or not, with transfers queued at its
/// endpoints. Functions that return int give 0 or a negative errno.
class UsbDevice {
public:
    using Bytes = std::span<const std::uint8_t>;

    /// The board behind the bridge.
    struct Board {
        std::function<void(Bytes)> fromHost; ///< serial bytes for the firmware
        std::function<void()> wantsData;     ///< before the chip packs data for the host
        std::function<void()> poweredOn;
    };

    /// The side that opened the device and submits transfers to it.
    struct Host {
        /// A transfer ended; `data` is what an IN transfer brought.
        std::function<void(const Urb&, int status, std::size_t actualLength, Bytes data)> completed;
        std::function<void(bool added)> changed;
    };

    UsbDevice(EventLoop& loop, Statistics& statistics, Faults& faults, FtdiChip& chip, Board board);

    /// Must be set before the device is plugged in.
    void setHost(Host host) { host_ = std::move(host); }

    void plug();
    void unplug();
    bool isPlugged() const { return plugged_; }

    /// Address on the bus; changes with each plug().
    std::uint32_t getNumber() const { return number_; }
    void setProduct(std::uint16_t product) { product_ = product; }

    /// Content of a file that sysfs would show for the device; nothing when there is none.
    std::optional<std::string> attribute(const std::string& name) const;

    int claim(std::uint32_t handle, std::uint32_t interface);

    /// Gives up the claim and the transfers of a handle.
    void release(std::uint32_t handle);

    /// Name of the driver that holds the interface, empty when none does.
    std::string driverName() const;
    int detachDriver();
    void setKernelDriver(bool bound) { kernelDriver_ = bound; }

    void submit(Urb urb);
    void discard(std::uint32_t handle, std::uint64_t id);

    /// Serves the queued transfers as far as possible; call after data or faults changed.
    void service();

    std::size_t getPendingReads() const { return reads_.size(); }
    std::size_t getPendingWrites() const { return writes_.size(); }

private:
    void control(const Urb& urb);
    std::vector<std::uint8_t> descriptors() const;
    void serviceWrites();
    std::size_t takeWritten(std::size_t length);
    void serviceReads();
    bool serveRead();
    void finishRead(int status);
    void complete(const Urb& urb, int status) const;
    void endTransfers(int status, const std::function<bool(const Urb&)>& isMeant);

    EventLoop& loop_;
    Statistics& statistics_;
    Faults& faults_;
    FtdiChip& chip_;
    Board board_;
    Host host_;
    std::uint16_t product_ = 0x6015;
    bool plugged_ = false;
    bool pullOut_ = false; ///< a fault asks for it as soon as the transfer at hand is done
    bool kernelDriver_ = false;
    std::uint32_t number_ = 0;
    std::optional<std::uint32_t> owner_; ///< the handle with the claim
    std::deque<Urb> reads_;
    std::deque<Urb> writes_;
    EventLoop::TimerId latencyTimer_ = 0;
};
