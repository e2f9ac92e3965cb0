#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gpio-client/Client.h>

struct PinEvent {
    enum class Kind { Edge, Initial };

    Kind kind = Kind::Edge;
    unsigned pin = 0;
    gpioclient::Level level = gpioclient::Level::Low; ///< High after a rising edge.
    std::chrono::system_clock::time_point time;
};

/// Follows the levels of all pins: by change notices where the back end sends them, and by
/// reading all pins at an interval, which finds the rest and shows that the server still lives.
class PinWatcher {
public:
    struct Config {
        gpioclient::Endpoint endpoint;
        gpioclient::Options options;
        /// Between two readings of all pins; unset for a default that fits the back end.
        std::optional<std::chrono::milliseconds> pollInterval;
        bool reconnect = false;
        bool followDirections = false; ///< Whether each reading renews inputPins().
        /// Told in words about loss and return of the connection.
        std::function<void(const std::string&)> onConnectionNews;
    };

    /// Connects, asks for notices and reads the pins. Throws gpioclient::Error.
    explicit PinWatcher(Config config);

    /// Waits for changes; empty when the time is over first. With `reconnect`, the loss of the
    /// connection is not an error, and what changed meanwhile is reported after the return.
    std::vector<PinEvent> waitForEvents(std::chrono::milliseconds timeout);

    const gpioclient::Levels& levels() const { return levels_; }
    gpioclient::PinMask inputPins() const { return inputs_; }
    unsigned pinCount() const { return pinCount_; }
    gpioclient::BackEnd backEnd() const { return backEnd_; }
    bool isConnected() const { return client_.has_value(); }
    bool sendsNotices() const { return backEnd_ == gpioclient::BackEnd::Board; }
    std::chrono::milliseconds pollInterval() const;

    /// The connection while there is one.
    gpioclient::Client* client() { return client_ ? &*client_ : nullptr; }

private:
    using Clock = std::chrono::steady_clock;

    void connect();
    void follow(Clock::time_point deadline, std::vector<PinEvent>& events);
    void tryToReturn(Clock::time_point deadline, std::vector<PinEvent>& events);
    void applyNotice(const gpioclient::ChangeNotice& notice, std::vector<PinEvent>& events);
    void applyLevels(const gpioclient::Levels& levels, std::chrono::system_clock::time_point time,
                     std::vector<PinEvent>& events);
    void readPins(std::vector<PinEvent>& events);
    void lose(const gpioclient::Error& error);
    void report(const std::string& news) const;

    Config config_;
    std::optional<gpioclient::Client> client_;
    gpioclient::BackEnd backEnd_ = gpioclient::BackEnd::Test;
    unsigned pinCount_ = 0;
    gpioclient::PinMask inputs_ = 0;
    gpioclient::Levels levels_;
    std::size_t droppedNotices_ = 0;
    Clock::time_point nextPoll_;
    Clock::time_point nextAttempt_;
    std::chrono::milliseconds retryInterval_{0};
};
