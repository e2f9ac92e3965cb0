#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <gpio-client/PinWatcher.h>

#include "BoardState.h"
#include "FirmwareQuery.h"
#include "Follower.h"
#include "Timing.h"

namespace mqttbridge {

/// A level that somebody wants a pin to have.
struct PinCommand {
    unsigned pin = 0;
    gpioclient::Level level = gpioclient::Level::Low;
};

/// Follows and drives the pins of a server on a thread of its own, since the calls of the client
/// library block. Everything else here is for one other thread and returns at once.
class ServerLink {
public:
    static constexpr std::size_t MOST_COMMANDS = 64;

    /// `newsDescriptor` is an eventfd that is written to when there is news. The destructor takes
    /// as long as closing the connection, half a second at most.
    ServerLink(const gpioclient::Endpoint& server, const Timing& timing, int newsDescriptor);

    /// Has all pins read. A BoardState with this number, or a higher one, is the answer.
    void requestReading(std::uint64_t number);

    /// Each command that is taken is answered by a CommandResult. False when too many wait.
    bool submit(const PinCommand& command);

    /// What has happened since the last call, in order. Of states that pile up the newest stay.
    std::vector<LinkNews> takeNews();

    /// Asks the thread to end.
    void stop() { follower_.stop(); }

private:
    using Clock = std::chrono::steady_clock;

    void step();
    void carryOutCommands();
    std::string carryOut(const PinCommand& command);
    BoardState present(std::uint64_t reading) const;
    void publish(const BoardState& state);
    void publish(const BoardState& state, const CommandResult& result);

    Timing timing_;
    int newsDescriptor_;

    // Of the thread alone.
    Clock::time_point nextReading_;
    bridge::FirmwareQuery firmware_;
    bool everConnected_ = false;
    std::uint64_t answeredReading_ = 0;
    std::optional<BoardState> published_;

    std::mutex mutex_; ///< Guards the members up to the follower.
    std::deque<PinCommand> commands_;
    std::deque<LinkNews> news_;
    std::size_t openCommands_ = 0; ///< Submitted, and their results not taken.
    std::uint64_t wantedReading_ = 0;

    bridge::Follower follower_;
};

} // namespace mqttbridge
