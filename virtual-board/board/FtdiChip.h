#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "board/EventLoop.h"
#include "board/Faults.h"
#include "board/Statistics.h"

/// The USB-to-serial bridge: packs bytes for the host into packets and answers vendor requests.
class FtdiChip {
public:
    using Clock = EventLoop::Clock;
    using Bytes = std::span<const std::uint8_t>;
    using Packet = std::vector<std::uint8_t>;
    static constexpr std::size_t PACKET_LENGTH = 64;
    static constexpr std::size_t HEADER_LENGTH = 2;

    struct Setup {
        std::uint8_t requestType;
        std::uint8_t request;
        std::uint16_t value;
        std::uint16_t index;
        std::uint16_t length;
    };

    struct ControlAnswer {
        int status; ///< 0, or -EPIPE for a stall
        std::vector<std::uint8_t> data;
    };

    FtdiChip(Statistics& statistics, Faults& faults);

    /// Appends bytes for the host; those that find the buffer full are lost and counted.
    void queue(Bytes bytes);

    /// The packet that the host's next IN token collects, with at most `dataLimit` data bytes;
    /// nothing while the chip has none to give.
    std::optional<Packet> nextPacket(Clock::time_point now, std::size_t dataLimit);

    /// When the latency timer makes the chip answer without data.
    Clock::time_point statusDue() const { return lastPacket + latency; }

    ControlAnswer vendorRequest(const Setup& setup);

    void powerOn();
    std::size_t getQueued() const { return toHost.size(); }
    void setCapacity(std::size_t bytes) { capacity = bytes; }

    /// Whether less than a packet of data waits for the latency timer, as on the real chip.
    void setHoldShortData(bool hold) { holdShortData = hold; }

private:
    ControlAnswer resetRequest(std::uint16_t value);
    void discardToHost();

    Statistics& statistics;
    Faults& faults;
    std::deque<std::uint8_t> toHost;
    std::size_t capacity = 1024UL * 1024;
    std::chrono::milliseconds latency;
    Clock::time_point lastPacket;
    bool holdShortData = false;
};
