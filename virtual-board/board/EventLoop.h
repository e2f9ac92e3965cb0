#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>

/// Waits for descriptors and points in time and calls back. Everything in the board process runs on
/// the one thread inside run(), so nothing here or behind it takes a lock.
class EventLoop {
public:
    using Clock = std::chrono::steady_clock;
    using TimerId = std::uint64_t;
    using DescriptorHandler = std::function<void(short events)>;
    using Action = std::function<void()>;

    /// Calls `handler` while `events` (as in poll) are pending; replaces an earlier watch.
    void watch(int descriptor, short events, DescriptorHandler handler);
    void unwatch(int descriptor);

    /// Calls `action` once, at `time` or later.
    TimerId at(Clock::time_point time, Action action);
    TimerId after(std::chrono::nanoseconds delay, Action action);

    /// Unknown and elapsed timers are ignored.
    void cancel(TimerId timer);

    /// Called after each round of events and timers.
    void setAfterRound(Action action) { afterRound = std::move(action); }

    /// Runs until stop().
    void run();
    void stop() { running = false; }

private:
    struct Watch {
        short events;
        DescriptorHandler handler;
    };
    using TimerKey = std::pair<Clock::time_point, TimerId>;

    void runOnce();
    void dispatchTimers();

    std::unordered_map<int, Watch> watches;
    std::map<TimerKey, Action> timers;
    std::unordered_map<TimerId, Clock::time_point> timerTimes;
    TimerId lastTimer = 0;
    Action afterRound;
    bool running = false;
};
