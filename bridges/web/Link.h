#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gpio-client/PinWatcher.h>

#include "PinTable.h"
#include "WriteJob.h"

namespace webbridge {

/// The one connection to the server, on a thread of its own: follows the pins, carries out writes,
/// and comes back after every loss.
class Link {
public:
    /// A newer state, and the outcome of a write that is part of it.
    struct Update {
        PinTable table;
        std::optional<WriteResult> result;
    };

    struct Config {
        gpioclient::Endpoint server;
        /// Called on the link's thread when takeUpdates() has something, once for each time that it
        /// was empty before. Must not throw.
        std::function<void()> onUpdate;
    };

    explicit Link(Config config);

    /// Ends the thread; takes as long as closing the connection, half a second at most.
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    /// Queues a write; its result comes with an update. The caller bounds their number.
    void write(const WriteJob& job);

    /// Takes a write back; false when it has been begun, and its result is then still to come.
    bool takeBack(std::uint64_t id);

    /// What has become of the pins since the last call, oldest first: one update for each write,
    /// and those between two writes joined into one.
    std::vector<Update> takeUpdates();

private:
    gpioclient::PinWatcher::Config watcherConfig() const;
    void run();
    void follow();
    void carryOutWrites();
    WriteOutcome carryOut(const WriteJob& job);
    void renew(const std::vector<gpioclient::PinEvent>& events);
    void noteConnection();
    void askForFirmware();
    void countChanges(const PinTable& before, const std::vector<gpioclient::PinEvent>& events);
    void noteChange(unsigned pin, std::chrono::system_clock::time_point time);
    void publish(std::optional<WriteResult> result);
    std::optional<WriteJob> nextJob();
    void pauseAfter(const gpioclient::Error& error);

    Config config_;
    std::atomic<bool> stopping_ = false;
    /// Of the link's thread, but for wake().
    gpioclient::PinWatcher watcher_;
    PinTable table_; ///< Of the link's thread alone.
    std::chrono::steady_clock::time_point nextFirmwareQuery_;

    std::mutex mutex_; ///< Guards all below it down to the thread.
    std::condition_variable changed_;
    std::deque<WriteJob> jobs_;
    std::vector<Update> updates_;

    std::thread thread_;
};

} // namespace webbridge
