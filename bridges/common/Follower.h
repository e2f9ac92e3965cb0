#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include <gpio-client/PinWatcher.h>

namespace bridge {

/// Follows a server on a thread of its own, since the calls of the client library block. The last
/// member of its owner, all of whose other members the thread may use until it has ended.
class Follower {
public:
    /// To `config` comes what all bridges want: to return after every loss and wait for the first
    /// connection too, to follow directions, and to end with the thread.
    ///
    /// `step` is carried out again and again. What it throws, such as a lack of descriptors, may
    /// pass: `onConnectionNews` is told, and the next step follows after `pause`.
    Follower(gpioclient::PinWatcher::Config config, std::chrono::milliseconds pause,
             std::function<void()> step);

    /// Ends the thread; takes as long as closing the connection.
    ~Follower();

    /// Asks the thread to end. Any thread may call it.
    void stop();
    bool isStopping() const { return stopping_; }

    /// The watcher; the thread's alone, but for waking it.
    gpioclient::PinWatcher* operator->() { return &watcher_; }
    const gpioclient::PinWatcher* operator->() const { return &watcher_; }

private:
    gpioclient::PinWatcher::Config complete(gpioclient::PinWatcher::Config config) const;
    void run();

    std::chrono::milliseconds pause_;
    std::function<void()> step_;
    std::function<void(const std::string&)> tell_;
    std::atomic<bool> stopping_ = false;
    std::mutex mutex_; ///< Lets no stop pass unseen between the look at stopping_ and a pause.
    std::condition_variable stopped_;
    gpioclient::PinWatcher watcher_;
    std::thread thread_;
};

} // namespace bridge
