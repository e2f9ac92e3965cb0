#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <gpio-client/Error.h>
#include <gpio-client/Geometry.h>
#include <gpio-client/Types.h>

namespace gpioclient {

/// One connection to a server, used by one thread at a time; only interrupt() is for any thread.
///
/// Every operation throws Error. After TimedOut, ConnectionLost, ProtocolViolation or Cancelled
/// the connection is closed, because a late answer could be taken for the next one; make a new
/// Client to go on. The other causes leave the connection in use.
class Client {
public:
    /// Connects and, unless Options::backEnd tells it, finds out the back end by a request that
    /// changes nothing. A server with a board logs that request as an error.
    explicit Client(const Endpoint& endpoint, const Options& options = {});

    /// Closes as close() does.
    ~Client();
    Client(Client&& other) noexcept;
    Client& operator=(Client&& other) noexcept;

    BackEnd backEnd() const noexcept;

    const Geometry& geometry() const noexcept;
    unsigned pinCount() const noexcept { return geometry().pinCount; }

    /// Whether listen() ever brings notices: on the board only.
    bool sendsNotices() const noexcept { return geometry().sendsNotices; }

    /// Throw PinOutOfRange or Unsupported, as the operation itself would; nothing is sent.
    void checkReadable(unsigned pin) const;
    void checkWritable(unsigned pin) const;
    void checkDirectionSettable(unsigned pin) const;

    /// Level of one pin. For an output of the board it is what was last written.
    Level readPin(unsigned pin);

    /// Drives one pin. Throws RequestFailed when the server could not.
    void writePin(unsigned pin, Level level);

    /// Levels of all readable pins at one moment.
    Levels readLevels();

    /// readLevels(), but the inputs are those of the last notice if one arrives meanwhile, so that
    /// the result is at least as new as every notice received so far. The notices stay queued.
    Levels readSettledLevels();

    Direction direction(unsigned pin);
    void setDirection(unsigned pin, Direction direction);

    /// Pins that are inputs.
    PinMask inputPins();
    unsigned inputCount();
    unsigned outputCount();

    /// "v<major>.<minor>", or "Unknown" when the board has not told yet. Board only.
    std::string firmwareVersion();

    /// Sets the server's flag for debugging of current values; it cannot be unset.
    void enableValueDebugging();

    /// Asks for change notices, or for no more of them.
    void listen(bool interested = true);

    /// The oldest queued notice, else the next to arrive; nothing when `timeout` passes first.
    std::optional<ChangeNotice> waitForChange(std::chrono::milliseconds timeout);

    /// Ends waitForChange() early, the one under way or else the next one. Any thread may call it.
    void interrupt() noexcept;

    /// A notice that has already been received, without reading from the network.
    std::optional<ChangeNotice> takeQueuedChange();

    /// Notices dropped because they were not fetched in time.
    std::size_t droppedNotices() const noexcept;

    /// Sends one command as it is and returns the answer without its line end. At most
    /// commandLength() characters; empty commands, line ends and zero bytes are refused.
    std::string raw(std::string_view command);

    /// Characters in a complete command of this back end: 3 or 4.
    std::size_t commandLength() const noexcept;

    /// One harmless request; returns its round-trip time.
    std::chrono::nanoseconds ping();

    bool isOpen() const noexcept;

    /// Ends the connection in order: no more requests, then reads until the server has hung up
    /// or closeTimeout has passed. The server is thereby never left writing to a closed socket.
    void close() noexcept;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace gpioclient
