#pragma once

#include <chrono>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "BoardState.h"
#include "BridgeSettings.h"
#include "Broker.h"
#include "Descriptor.h"
#include "Discovery.h"
#include "ServerLink.h"
#include "Timing.h"
#include "Topics.h"

namespace mqttbridge {

/// Puts the pins of one server on a broker until a signal ends it.
///
/// Two threads: this one polls the broker's socket and never blocks; the link to the server blocks
/// on a thread of its own. On each connection to the broker the bridge first learns what the broker
/// holds of its earlier messages, has all pins read again, tells everything, then that the board is
/// there, and at last that the bridge is.
class Bridge {
public:
    Bridge(const BridgeSettings& settings, const Timing& timing);

    /// Returns after one of the signals that `signals`, a signalfd, takes in: at once, or as soon
    /// as the broker has acknowledged the farewell.
    void run(int signals);

private:
    using Clock = std::chrono::steady_clock;

    /// How far the present connection to the broker has come.
    enum class Phase { Away, Subscribing, Learning, AwaitingReading, Telling };

    void pollOnce(int signals, Clock::time_point until);
    void sayGoodbye(int signals);

    void onConnected();
    void onLost();
    void onReceived(const BrokerMessage& message);
    void onAnswered(int messageId, bool granted);
    void onCommand(std::optional<unsigned> pin, const BrokerMessage& message);
    void onOwnDiscovery(const Incoming& incoming, const BrokerMessage& message);
    void onHomeStatus(const BrokerMessage& message);
    void warnOfUnconfirmed();

    void takeNews();
    void apply(const LinkNews& news);
    void tellIfReady();
    void tellEverything();
    void tellChanges(const BoardState& before);
    void tellDiscovery();
    void tellState(unsigned pin);
    void tellBoard();
    void refuse(std::optional<unsigned> pin, const std::string& reason);
    void warnOfMissingPins() const;

    bool isOffered(unsigned pin) const;
    Offer offer() const;
    std::string stateText(unsigned pin) const;

    const BridgeSettings& settings_;
    Timing timing_;
    Topics topics_;
    Discovery discovery_;
    Descriptor wake_;
    ServerLink link_;
    Broker broker_;
    BoardState state_;
    bool knowsServer_ = false; ///< The link has told whether it is there.
    Phase phase_ = Phase::Away;
    std::set<int> awaitedAnswers_;
    std::set<unsigned> statesOnBroker_; ///< Pins whose retained state the broker holds.
    std::optional<Offer> told_;
    std::uint64_t wantedReading_ = 0;
    std::optional<Clock::time_point> repeatAt_;
    std::set<std::string> unconfirmed_; ///< Discovery topics that have not come back yet.
    std::optional<Clock::time_point> confirmBy_;
    std::minstd_rand random_;
    bool stopping_ = false;
};

} // namespace mqttbridge
