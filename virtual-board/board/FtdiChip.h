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

    FtdiChip(Statistics& statistics, Faults& faults) : statistics_(statistics), faults_(faults) {}

    /// Appends bytes for the host; those that find the buffer full are lost and counted.
    void queue(Bytes bytes);

    /// The packet that the host's next IN token collects, with at most `dataLimit` data bytes;
    /// nothing while the chip has none to give.
    std::optional<Packet> nextPacket(std::size_t dataLimit);

    /// When the latency timer makes the chip answer without data.
    Clock::time_point statusDue() const;

    /// Returns false when the chip refuses it.
    bool vendorRequest(std::uint8_t request, std::uint16_t value);

    void powerOn();
    std::size_t getQueued() const { return toHost_.size(); }
    void setCapacity(std::size_t bytes) { capacity_ = bytes; }

private:
    Statistics& statistics_;
    Faults& faults_;
    std::deque<std::uint8_t> toHost_;
    std::size_t capacity_ = 1024UL * 1024;
    Clock::time_point lastPacket_;
};
