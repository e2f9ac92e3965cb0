#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "board/EventLoop.h"
#include "board/Firmware.h"

/// Makes the board report input changes without end or a given number of times. The n-th change of
/// a flood, counted from 1, sets port A to the high and port B to the low byte of n, so that a
/// reader can tell lost and reordered messages.
class Flood {
public:
    /// `changed` is called after messages were produced at a rate.
    Flood(EventLoop& loop, Firmware& firmware, std::function<void()> changed);

    /// `rate` in messages a second, nothing for as fast as the host reads.
    void start(std::optional<std::uint32_t> rate, std::uint64_t count);
    void stop();

    /// Before data is looked for: produces what is due by now, however late the process got its
    /// turn, or without a rate as much as makes `queued` bytes a few packets.
    void topUp(std::size_t queued);

private:
    void produceUntil(std::uint64_t number);
    std::uint64_t dueByNow() const;
    void tick();

    EventLoop& loop_;
    Firmware& firmware_;
    std::function<void()> changed_;
    std::optional<std::uint32_t> rate_;
    std::uint64_t produced_ = 0;
    std::uint64_t wanted_ = 0;
    EventLoop::Clock::time_point started_;
    EventLoop::TimerId timer_ = 0;
};
