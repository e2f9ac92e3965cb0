#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gpio-client/Client.h>

namespace gpioclient {

/// A change of a pin's level that a PinWatcher has seen.
struct PinEvent {
    enum class Kind {
        Edge,   ///< The level has changed.
        Initial ///< The level at the start; for those who print it, a PinWatcher makes none.
    };

    Kind kind = Kind::Edge;
    unsigned pin = 0;
    Level level = Level::Low; ///< High after a rising edge.
    std::chrono::system_clock::time_point time;
};

/// Follows the levels of all pins, by change notices where the back end sends them and by reading
/// all pins at an interval, and comes back after the loss of the board or of the server.
///
/// For one thread at a time; nothing happens between calls, so call waitForEvents() again soon: a
/// server drops a client that has taken no notices for 30 seconds. A call that talks to the
/// server may take longer than it was asked to: connecting and each of up to four requests as
/// long as Options allow, and closing a lost connection up to Options::closeTimeout.
/// Options::isCancelled ends all of it but the closing; it is asked on the thread that waits.
class PinWatcher {
public:
    struct Config {
        Endpoint endpoint;
        Options options; ///< A back end that is unset is found out once, not at each reconnection.
        /// Between two readings of all pins; unset for 5 s where notices are sent, else 100 ms.
        /// While notices are sent, it also bounds the time until a silent server is noticed.
        std::optional<std::chrono::milliseconds> pollInterval;
        /// Whether the loss of the connection is waited out, not thrown.
        bool reconnect = false;
        /// Whether the first connection, too, is left to waitForEvents(); only with `reconnect`.
        bool startDisconnected = false;
        /// Pauses between two attempts to connect: the first, and the limit of its doubling.
        std::chrono::milliseconds firstRetryInterval{100};
        std::chrono::milliseconds longestRetryInterval{2000};
        /// Whether each reading renews inputPins(); otherwise each connection does.
        bool followDirections = false;
        /// Told in words about loss and return of the connection, from within waitForEvents().
        std::function<void(const std::string&)> onConnectionNews;
    };

    /// Connects, asks for notices and reads the pins, unless `startDisconnected`. Throws Error.
    explicit PinWatcher(Config config);

    /// Waits for changes; empty when the time is over first, and at once when the connection is
    /// lost or made. One call sees one loss or one return at most, so isConnected() before and
    /// after tells it. After a return, what changed meanwhile is reported like any change.
    ///
    /// Throws Error: for what reconnecting cannot help, for Cancelled, and without `reconnect`
    /// for every loss.
    std::vector<PinEvent> waitForEvents(std::chrono::milliseconds timeout);

    /// As of the last notice or reading; while disconnected, of the last connection. Pins whose
    /// level cannot be known, or is not yet, are left out of `known`.
    const Levels& levels() const noexcept { return levels_; }

    /// As of the last connection, or reading with `followDirections`.
    PinMask inputPins() const noexcept { return inputs_; }

    /// Of the last connection. Before the first it is Options::backEnd, else the test back end.
    BackEnd backEnd() const noexcept { return backEnd_; }
    const Geometry& geometry() const noexcept { return geometryOf(backEnd_); }
    bool sendsNotices() const noexcept { return geometry().sendsNotices; }

    bool isConnected() const noexcept { return client_.has_value(); }
    std::chrono::milliseconds pollInterval() const;

    /// The connection while there is one, for other requests between two waits; owned by the
    /// watcher and valid until the next call of waitForEvents(). A failure that closes it is found
    /// there as a loss. Do not take its notices.
    Client* client() noexcept { return client_ ? &*client_ : nullptr; }

private:
    using Clock = std::chrono::steady_clock;

    void connect();
    void follow(Clock::time_point deadline, std::vector<PinEvent>& events);
    void tryToReturn(Clock::time_point deadline, std::vector<PinEvent>& events);
    void applyNotice(const ChangeNotice& notice, std::vector<PinEvent>& events);
    void applyLevels(const Levels& levels, std::chrono::system_clock::time_point time,
                     std::vector<PinEvent>& events);
    void readPins(std::vector<PinEvent>& events);
    void lose(const Error& error);
    void report(const std::string& news) const;

    Config config_;
    std::optional<Client> client_;
    BackEnd backEnd_;
    PinMask inputs_ = 0;
    Levels levels_;
    std::size_t droppedNotices_ = 0;
    Clock::time_point nextPoll_;
    Clock::time_point nextAttempt_;
    std::chrono::milliseconds retryInterval_{0};
    bool wasConnected_ = false;
};

} // namespace gpioclient
