#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "BridgeSettings.h"
#include "Publication.h"
#include "Timing.h"
#include "TlsContext.h"

struct mosquitto;
struct mosquitto_message;

namespace mqttbridge {

/// A message from the broker. The views are valid during the call that hands it over.
struct BrokerMessage {
    std::string_view topic;
    std::string_view payload;
    bool retained = false; ///< Handed out on subscribing, not published just now.
};

/// What happens on a connection. Called from within BrokerConnection::handle().
class BrokerEvents {
public:
    virtual ~BrokerEvents() = default;
    virtual void accepted() = 0;
    virtual void received(const BrokerMessage& message) = 0;
    virtual void published(int messageId) = 0;
    virtual void subscribed(int messageId, bool granted) = 0;
    virtual void unsubscribed(int messageId) = 0;
};

/// What the broker keeps and tells when this connection ends without a word.
struct BrokerIdentity {
    std::string clientId;
    std::optional<Publication> will;
};

/// One connection to one address of a broker, from connecting to its end, for one thread. Nothing
/// blocks. Each one is made anew, because the MQTT library would carry unacknowledged messages over
/// to the next connection.
class BrokerConnection {
public:
    using Clock = std::chrono::steady_clock;

    /// The longest time between two calls of handle().
    static constexpr std::chrono::milliseconds CARE_INTERVAL{1000};

    /// Begins to connect; what fails at once is found by handle(). Throws std::runtime_error when
    /// a file that the settings name cannot be used.
    BrokerConnection(const BrokerSettings& settings, const std::string& address,
                     const BrokerIdentity& identity, const Timing& timing, BrokerEvents& events);
    ~BrokerConnection();

    /// What to poll; the descriptor is negative once the connection has ended.
    int descriptor() const;
    short pollEvents() const;

    /// Reads, writes and keeps the connection alive; to be called after each poll, and each
    /// CARE_INTERVAL at least.
    void handle(short pollResult);

    bool hasEnded() const { return !end_.empty(); }
    /// Why, in words.
    const std::string& end() const { return end_; }

    /// Since when the broker has accepted the connection; nothing before.
    std::optional<Clock::time_point> acceptedAt() const { return acceptedAt_; }

    /// Whether everything sent so far has been handed to the system.
    bool isCongested() const;

    /// These return the message's id, or nothing when the connection has ended by it.
    std::optional<int> publish(const Publication& publication);
    std::optional<int> subscribe(const std::vector<std::string>& filters, int qos);
    std::optional<int> unsubscribe(const std::string& filter);

    /// Says goodbye, so that the broker drops the will.
    void disconnect();

private:
    struct Free {
        void operator()(mosquitto* handle) const;
    };

    void configure(const BrokerSettings& settings, const BrokerIdentity& identity);
    void setCallbacks();
    void check(int result);
    void finish(const std::string& reason);
    void keepAlive();
    void onConnect(int code);

    Timing timing_;
    BrokerEvents& events_;
    std::optional<TlsContext> tls_; ///< Outlives the handle.
    std::unique_ptr<mosquitto, Free> handle_;
    bool tcpConnected_ = false;
    std::string libraryError_;
    std::string end_;
    std::optional<Clock::time_point> acceptedAt_;
    Clock::time_point lastCare_;
    std::optional<Clock::time_point> pingSentAt_; ///< Of one that is not answered yet.
    unsigned receivedBeforePing_ = 0;             ///< Segments with data.
};

} // namespace mqttbridge
