#include "board/Flood.h"

#include <algorithm>

namespace {

constexpr std::size_t ENOUGH_QUEUED = 256;
constexpr std::chrono::milliseconds TICK{1};

} // namespace

Flood::Flood(EventLoop& loop, Firmware& firmware, std::function<void()> changed)
    : loop_(loop), firmware_(firmware), changed_(std::move(changed)) {}

void Flood::start(std::optional<std::uint32_t> rate, std::uint64_t count) {
    stop();
    rate_ = rate;
    produced_ = 0;
    wanted_ = count;
    started_ = EventLoop::Clock::now();
    if (rate_) {
        tick();
    }
}

void Flood::stop() {
    wanted_ = produced_;
    loop_.cancel(timer_);
}

void Flood::topUp(std::size_t queued) {
    if (rate_) {
        produceUntil(dueByNow());
    } else if (queued < ENOUGH_QUEUED) {
        produceUntil(produced_ + (ENOUGH_QUEUED - queued) / Firmware::MESSAGE_LENGTH);
    }
}

void Flood::produceUntil(std::uint64_t number) {
    while (produced_ < std::min(number, wanted_)) {
        ++produced_;
        firmware_.setInputs({static_cast<std::uint8_t>(produced_ >> 8U),
                             static_cast<std::uint8_t>(produced_ & 0xFFU)},
                            true);
    }
}

std::uint64_t Flood::dueByNow() const {
    const std::chrono::duration<double> elapsed = EventLoop::Clock::now() - started_;
    return static_cast<std::uint64_t>(elapsed.count() * *rate_);
}

void Flood::tick() {
    produceUntil(dueByNow());
    if (produced_ < wanted_) {
        timer_ = loop_.after(TICK, [this] { tick(); });
    }
    changed_();
}
