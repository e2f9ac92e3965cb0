#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gpio-client/Client.h>
#include <gpio-client/OutputMemory.h>

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
/// For one thread at a time, but for wake(). Nothing happens between calls, so call
/// waitForEvents() again soon: a server drops a client that has taken no notices for 30 seconds.
/// A call may take longer than it was asked to: connecting and each of up to four requests as long
/// as Options allow, and closing a lost connection up to Options::closeTimeout.
/// Options::isCancelled ends all of it but the closing; it is asked on the thread that waits.
class PinWatcher {
public:
    struct Config {
        Endpoint endpoint;
        Options options; ///< A back end that is unset is found out once, not at each reconnection.
        /// Between two readings of all pins; unset for 5 s where notices are sent, else 100 ms.
        /// With notices, it also bounds the time until a server is noticed to be silent.
        std::optional<std::chrono::milliseconds> pollInterval;
        /// Replaces a longer pollInterval until the first notice of a connection, as long as an
        /// input is high: a server tells of no change when the first one after it has found its
        /// board leads to all inputs low.
        std::chrono::milliseconds firstPollInterval{100};
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

    /// Waits for changes. Returns at once, perhaps with none, when the connection is lost or made,
    /// when a direction has changed and after wake(). One call sees one loss or one return at most,
    /// so isConnected() before and after tells it. After a return, what changed meanwhile is
    /// reported like any change.
    ///
    /// Throws Error: for what reconnecting cannot help, for Cancelled, and without `reconnect`
    /// for every loss.
    std::vector<PinEvent> waitForEvents(std::chrono::milliseconds timeout = std::chrono::hours(1));

    /// Ends waitForEvents() early, the one under way or else the next one, so that its thread can
    /// do something else. Requests and attempts to connect go on. Any thread may call it.
    void wake() noexcept;

    /// Lets the next waitForEvents() read all pins first, while connected.
    void readSoon() noexcept { nextPoll_ = {}; }

    /// Drives one pin. levels() has the new level afterwards, and no event tells it. Throws Error
    /// as Client::writePin() does; ConnectionLost while disconnected. With `reconnect`, after a
    /// failure that closes the connection, waitForEvents() goes on to connect again.
    void write(unsigned pin, Level level);

    /// Likewise for inputPins(); on the test back end only.
    void setDirection(unsigned pin, Direction direction);

    /// As of the last notice, reading or write(); while disconnected, of the last connection. The
    /// outputs of a board are known as OutputMemory tells, and none while disconnected. One that
    /// was seen to change and so becomes known makes an event as well.
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
    /// watcher and valid until the next call that may lose it. A failure that closes it is found
    /// by waitForEvents() as a loss. Do not take its notices.
    Client* client() noexcept { return client_ ? &*client_ : nullptr; }

private:
    using Clock = std::chrono::steady_clock;

    void connect();
    void follow(Clock::time_point deadline, std::vector<PinEvent>& events);
    void tryToReturn(Clock::time_point deadline, std::vector<PinEvent>& events);
    void applyNotice(const ChangeNotice& notice, std::vector<PinEvent>& events);
    void applyLevels(const Levels& levels, std::chrono::system_clock::time_point time,
                     std::vector<PinEvent>& events, PinMask learned = 0);
    void readPins(std::vector<PinEvent>& events);
    std::chrono::milliseconds presentPollInterval() const;
    void pauseUntil(Clock::time_point end);
    bool isWoken();
    void request(const std::function<void(Client&)>& operation);
    bool mayReturnAfter(const Error& error) const;
    void lose(const Error& error);
    void report(const std::string& news) const;

    Config config_;
    std::mutex mutex_; ///< Guards isWoken_, and the existence of client_ against wake().
    std::condition_variable wakeUp_;
    bool isWoken_ = false;
    std::optional<Client> client_;
    BackEnd backEnd_;
    PinMask inputs_ = 0;
    Levels levels_;
    OutputMemory memory_;
    bool wasNotified_ = false; ///< By this connection.
    std::size_t droppedNotices_ = 0;
    Clock::time_point nextPoll_;
    Clock::time_point nextAttempt_;
    std::chrono::milliseconds retryInterval_{0};
    bool wasConnected_ = false;
};

} // namespace gpioclient
