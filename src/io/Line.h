#pragma once

#include <chrono>
#include <span>
#include <string_view>

namespace io {

class Connection;

/// A text and its line end on their way to one client: two writes, of which the system holds the
/// first back for the second, so that both leave as one packet. Nothing stays held back: the second
/// follows at once, or what is left waits for room, or the connection is closed.
class Line {
public:
    using Clock = std::chrono::steady_clock;

    /// How long a client may leave a line untaken.
    static constexpr std::chrono::seconds PATIENCE{2};

    /// The connection and both texts must outlive the line. Without a line end there is one write.
    Line(Connection& connection, std::string_view text, std::string_view lineEnd = "\n");

    /// Sends what the client has room for, without waiting; true when nothing is left. Throws
    /// ConnectionException when the connection is closed or the write fails, after saying so in the
    /// log.
    bool send();

    /// As send(), but a client that still has no room has its connection closed, and the write
    /// fails; so does one whose line is whole but that took nothing since it was first waited for.
    void sendOrClose();

    /// Sends all of it, waiting for room for PATIENCE at most; then as sendOrClose().
    void sendWhole();

    bool isWhole() const { return textSent && lineEnd.empty(); }

    /// Whether the last wait found that the client has room, or is gone.
    bool hasRoom() const { return roomFound; }

    /// Waits until some of the clients have room or `deadline` passes; false when it has passed.
    static bool waitForRoom(std::span<Line> lines, Clock::time_point deadline);

private:
    int untaken() const;

    Connection* connection;
    std::string_view text;
    std::string_view lineEnd;
    bool textSent = false;
    bool roomFound = false;
    int untakenAtFirst = 0; ///< in bytes, when it was first waited for
};

} // namespace io
