#include "board/EventLoop.h"

#include <algorithm>
#include <ctime>
#include <vector>

#include <poll.h>

namespace {

timespec toTimespec(std::chrono::nanoseconds duration) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    return {static_cast<time_t>(seconds.count()), static_cast<long>((duration - seconds).count())};
}

} // namespace

void EventLoop::watch(int descriptor, short events, DescriptorHandler handler) {
    watches[descriptor] = {events, std::move(handler)};
}

void EventLoop::unwatch(int descriptor) {
    watches.erase(descriptor);
}

EventLoop::TimerId EventLoop::at(Clock::time_point time, Action action) {
    const TimerId timer = ++lastTimer;
    timers.emplace(TimerKey{time, timer}, std::move(action));
    timerTimes.emplace(timer, time);
    return timer;
}

EventLoop::TimerId EventLoop::after(std::chrono::nanoseconds delay, Action action) {
    return at(Clock::now() + delay, std::move(action));
}

void EventLoop::cancel(TimerId timer) {
    const auto entry = timerTimes.find(timer);
    if (entry != timerTimes.end()) {
        timers.erase({entry->second, timer});
        timerTimes.erase(entry);
    }
}

void EventLoop::run() {
    running = true;
    while (running) {
        runOnce();
        if (afterRound) {
            afterRound();
        }
    }
}

void EventLoop::runOnce() {
    std::vector<pollfd> entries;
    entries.reserve(watches.size());
    for (const auto& [descriptor, watch] : watches) {
        entries.push_back({descriptor, watch.events, 0});
    }
    timespec wait{};
    if (!timers.empty()) {
        const auto remaining = timers.begin()->first.first - Clock::now();
        wait = toTimespec(std::max(remaining, Clock::duration::zero()));
    }
    if (::ppoll(entries.data(), entries.size(), timers.empty() ? nullptr : &wait, nullptr) > 0) {
        for (const auto& entry : entries) {
            const auto found = watches.find(entry.fd);
            if (entry.revents != 0 && found != watches.end()) {
                // A copy: the handler may remove its own watch.
                const auto handler = found->second.handler;
                handler(entry.revents);
            }
        }
    }
    dispatchTimers();
}

void EventLoop::dispatchTimers() {
    const auto now = Clock::now();
    while (!timers.empty() && timers.begin()->first.first <= now) {
        const auto first = timers.begin();
        const auto action = std::move(first->second);
        timerTimes.erase(first->first.second);
        timers.erase(first);
        action();
    }
}
