#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>

#include "board/EventLoop.h"

/// The wire from the board's firmware to the bridge: at once, or at a number of bytes a second.
class SerialLine {
public:
    using Bytes = std::span<const std::uint8_t>;

    /// `deliver` receives the bytes; `delivered` is called after some arrived later than sent.
    SerialLine(EventLoop& loop, std::function<void(Bytes)> deliver,
               std::function<void()> delivered);

    void send(Bytes bytes);

    /// Bytes a second, nothing for at once. Bytes already on the way keep their order.
    void setSpeed(std::optional<std::uint32_t> bytesPerSecond);

    /// Loses what is on the way.
    void cut();

private:
    void tick();
    void startTimer();

    EventLoop& loop;
    std::function<void(Bytes)> deliver;
    std::function<void()> delivered;
    std::optional<std::uint32_t> speed;
    std::deque<std::uint8_t> underWay;
    EventLoop::Clock::time_point lastByte;
    EventLoop::TimerId timer = 0;
};
