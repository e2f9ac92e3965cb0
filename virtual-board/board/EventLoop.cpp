#include "board/EventLoop.h"

#include <algorithm>
#include <vector>

#include <poll.h>

EventLoop::TimerId EventLoop::at(Clock::time_point time, Action action) {
    timers_.emplace(std::pair(time, ++lastTimer_), std::move(action));
    return lastTimer_;
}

EventLoop::TimerId EventLoop::after(Clock::duration delay, Action action) {
    return at(Clock::now() + delay, std::move(action));
}

void EventLoop::cancel(TimerId timer) {
    std::erase_if(timers_, [timer](const auto& entry) { return entry.first.second == timer; });
}

void EventLoop::run() {
    while (running_) {
        waitForDescriptors();
        dispatchTimers();
        afterRound_();
    }
}

void EventLoop::waitForDescriptors() {
    std::vector<pollfd> entries;
    for (const auto& [descriptor, action] : watches_) {
        entries.push_back({descriptor, POLLIN, 0});
    }
    int wait = -1;
    if (!timers_.empty()) {
        const auto left = timers_.begin()->first.first - Clock::now();
        // Up, so that the loop does not spin through the last part of a millisecond.
        const auto whole = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        wait = static_cast<int>(std::max<std::int64_t>(whole, 0));
    }
    if (::poll(entries.data(), entries.size(), wait) <= 0) {
        return;
    }
    for (const pollfd& entry : entries) {
        const auto found = watches_.find(entry.fd);
        if (entry.revents != 0 && found != watches_.end()) {
            const Action action = found->second;
            action();
        }
    }
}

void EventLoop::dispatchTimers() {
    while (!timers_.empty() && timers_.begin()->first.first <= Clock::now()) {
        const auto first = timers_.extract(timers_.begin());
        first.mapped()();
    }
}
