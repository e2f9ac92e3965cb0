#include "board/SerialLine.h"

#include <algorithm>
#include <vector>

namespace {

constexpr std::chrono::milliseconds TICK{1};

} // namespace

SerialLine::SerialLine(EventLoop& eventLoop, std::function<void(Bytes)> deliverBytes,
                       std::function<void()> onDelivery)
    : loop(eventLoop), deliver(std::move(deliverBytes)), delivered(std::move(onDelivery)) {}

void SerialLine::send(Bytes bytes) {
    if (!speed && underWay.empty()) {
        return deliver(bytes);
    }
    if (underWay.empty()) {
        lastByte = EventLoop::Clock::now();
        startTimer();
    }
    underWay.insert(underWay.end(), bytes.begin(), bytes.end());
}

void SerialLine::setSpeed(std::optional<std::uint32_t> bytesPerSecond) {
    speed = bytesPerSecond;
}

void SerialLine::cut() {
    loop.cancel(timer);
    underWay.clear();
}

void SerialLine::startTimer() {
    timer = loop.after(TICK, [this] { tick(); });
}

void SerialLine::tick() {
    const auto now = EventLoop::Clock::now();
    std::size_t due = underWay.size();
    if (speed) {
        const auto byteTime = std::chrono::nanoseconds(std::chrono::seconds(1)) / *speed;
        due = std::min(due, static_cast<std::size_t>((now - lastByte) / byteTime));
        lastByte += static_cast<std::int64_t>(due) * byteTime;
    }
    const auto end = underWay.begin() + static_cast<std::ptrdiff_t>(due);
    const std::vector<std::uint8_t> arrived(underWay.begin(), end);
    underWay.erase(underWay.begin(), end);
    deliver(arrived);
    if (!underWay.empty()) {
        startTimer();
    }
    delivered();
}
