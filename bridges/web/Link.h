#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gpio-client/PinWatcher.h>

#include "FirmwareQuery.h"
#include "Follower.h"
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

    /// `onUpdate` is called on the link's thread when takeUpdates() has something, once for each
    /// time that it was empty before. Must not throw. The destructor takes as long as closing the
    /// connection, half a second at most.
    Link(const gpioclient::Endpoint& server, std::function<void()> onUpdate);

    /// Queues a write; its result comes with an update. The caller bounds their number.
    void write(const WriteJob& job);

    /// Takes a write back; false when it has been begun, and its result is then still to come.
    bool takeBack(std::uint64_t id);

    /// What has become of the pins since the last call, oldest first: one update for each write,
    /// and those between two writes joined into one.
    std::vector<Update> takeUpdates();

private:
    void step();
    void carryOutWrites();
    WriteOutcome carryOut(const WriteJob& job);
    void renew(const std::vector<gpioclient::PinEvent>& events);
    void noteConnection();
    void countChanges(const PinTable& before, const std::vector<gpioclient::PinEvent>& events);
    void noteChange(unsigned pin, std::chrono::system_clock::time_point time);
    void publish(std::optional<WriteResult> result);
    std::optional<WriteJob> nextJob();

    std::function<void()> onUpdate_;
    // Of the link's thread alone.
    PinTable table_;
    bridge::FirmwareQuery firmware_;

    std::mutex mutex_; ///< Guards the two below it.
    std::deque<WriteJob> jobs_;
    std::vector<Update> updates_;

    bridge::Follower follower_;
};

} // namespace webbridge
