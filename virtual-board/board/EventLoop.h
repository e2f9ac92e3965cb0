#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>

/// Waits for descriptors and points in time and calls back. Everything in the board process runs on
/// the one thread inside run(), so nothing here or behind it takes a lock.
class EventLoop {
public:
    using Clock = std::chrono::steady_clock;
    using TimerId = std::uint64_t;
    using Action = std::function<void()>;

    /// Calls `action` while the descriptor can be read or has ended; it may end its own watch.
    void watch(int descriptor, Action action) { watches_[descriptor] = std::move(action); }
    void unwatch(int descriptor) { watches_.erase(descriptor); }

    /// Calls `action` once, at `time` or later.
    TimerId at(Clock::time_point time, Action action);
    TimerId after(Clock::duration delay, Action action);

    /// Unknown and elapsed timers are ignored.
    void cancel(TimerId timer);

    /// Called after each round of events and timers.
    void setAfterRound(Action action) { afterRound_ = std::move(action); }

    /// Runs until stop().
    void run();
    void stop() { running_ = false; }

private:
    void waitForDescriptors();
    void dispatchTimers();

    std::map<int, Action> watches_;
    std::map<std::pair<Clock::time_point, TimerId>, Action> timers_;
    TimerId lastTimer_ = 0;
    Action afterRound_ = [] {};
    bool running_ = true;
};
