#include "board/Flood.h"

namespace {

constexpr std::size_t ENOUGH_QUEUED = 256;
constexpr std::chrono::milliseconds TICK{1};

} // namespace

Flood::Flood(EventLoop& eventLoop, Firmware& board, std::function<void()> onChange)
    : loop(eventLoop), firmware(board), changed(std::move(onChange)) {}

void Flood::start(std::optional<std::uint32_t> newRate, std::optional<std::uint64_t> count) {
    stop();
    rate = newRate;
    remaining = count;
    number = 0;
    producedSinceStart = 0;
    started = EventLoop::Clock::now();
    running = true;
    if (rate) {
        timer = loop.after(TICK, [this] { tick(); });
    }
}

void Flood::stop() {
    running = false;
    loop.cancel(timer);
}

void Flood::topUp(std::size_t queued) {
    if (rate) {
        return;
    }
    for (; running && queued < ENOUGH_QUEUED; queued += Firmware::MESSAGE_LENGTH) {
        produce();
    }
}

void Flood::produce() {
    if (remaining && *remaining == 0) {
        running = false;
        return;
    }
    if (remaining) {
        --*remaining;
    }
    ++number;
    ++producedSinceStart;
    firmware.setInputs(static_cast<std::uint8_t>(number >> 8U),
                       static_cast<std::uint8_t>(number & 0xFFU), true);
}

void Flood::tick() {
    const std::chrono::duration<double> elapsed = EventLoop::Clock::now() - started;
    const auto due = static_cast<std::uint64_t>(elapsed.count() * *rate);
    while (running && producedSinceStart < due) {
        produce();
    }
    if (running) {
        timer = loop.after(TICK, [this] { tick(); });
    }
    changed();
}
