#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Backoff.h"
#include "BridgeSettings.h"
#include "BrokerConnection.h"
#include "Lookup.h"
#include "Outbox.h"
#include "Timing.h"

namespace mqttbridge {

/// Keeps a connection to the broker: looks up its name, tries its addresses, comes back after a
/// loss. For one thread; nothing blocks. What is to be sent waits in an outbox that is empty on
/// each new connection.
class Broker : private BrokerEvents {
public:
    using Clock = std::chrono::steady_clock;

    /// Called from within handleNext(), on the thread that calls it.
    struct Handlers {
        std::function<void()> connected;
        std::function<void()> lost;
        std::function<void(const BrokerMessage&)> received;
        /// A message of subscribe() or unsubscribe() has been answered.
        std::function<void(int messageId, bool granted)> answered;
    };

    /// `wakeDescriptor` is an eventfd that is written to when a name has been looked up. Others may
    /// write to it as well to end handleNext().
    Broker(const BrokerSettings& settings, BrokerIdentity identity, const Timing& timing,
           int wakeDescriptor, Handlers handlers);

    /// Waits until there is something to do for the broker, `signals` or the wake descriptor can be
    /// read, or the limit has passed, and does what is to do for the broker. True when `signals`,
    /// a signalfd or -1, can be read.
    bool handleNext(int signals, Clock::time_point limit);

    /// Whether the broker has accepted the connection and it still stands.
    bool isConnected() const;

    /// Sends what the broker takes.
    void flush();
    Outbox& outbox() { return outbox_; }
    /// Whether everything has been sent and acknowledged.
    bool isSettled() const { return outbox_.isEmpty() && inFlight_.empty(); }

    std::optional<int> subscribe(const std::vector<std::string>& filters, int qos);
    std::optional<int> unsubscribe(const std::string& filter);

    /// Says goodbye and ends the connection.
    void disconnect();

    /// Why the newest attempt or connection ended; empty when none has.
    const std::string& lastError() const { return lastError_; }

private:
    struct Sent {
        std::string topic;
        std::size_t size = 0;
        bool isError = false;
    };

    void accepted() override;
    void received(const BrokerMessage& message) override { handlers_.received(message); }
    void published(int messageId) override;
    void subscribed(int messageId, bool granted) override {
        handlers_.answered(messageId, granted);
    }
    void unsubscribed(int messageId) override { handlers_.answered(messageId, true); }

    Clock::time_point nextCare() const;
    void handle(short pollResult);
    void awaitLookup();
    void beginLookup();
    void connectToNextAddress();
    void watchConnection(short pollResult);
    void connectionEnded();
    void attemptFailed(const std::string& reason);
    void pause();
    void report(const std::string& reason);
    void hintAtSize() const;

    const BrokerSettings& settings_;
    BrokerIdentity identity_;
    Timing timing_;
    int wakeDescriptor_;
    Handlers handlers_;
    Backoff backoff_;
    Outbox outbox_;

    std::optional<Lookup> lookup_;
    bool awaitsLookup_ = false;
    std::vector<std::string> addresses_; ///< Those still to be tried in this attempt.
    std::optional<BrokerConnection> connection_;
    std::map<int, Sent> inFlight_;
    Clock::time_point nextAttempt_;
    Clock::time_point attemptDeadline_;
    Clock::time_point addressDeadline_;
    std::string lastError_;
    std::string reportedError_;
    Clock::time_point reportedAt_;
};

} // namespace mqttbridge
