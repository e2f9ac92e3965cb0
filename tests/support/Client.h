#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "support/Descriptor.h"
#include "support/Eventually.h"

namespace support {

/// A TCP client of the server. Nothing here raises the broken-pipe signal.
class Client {
public:
    /// Connects, trying again until `limit` has passed: the server's queue is short, and an
    /// attempt that it refuses is repeated by the system after a second only. A receive buffer
    /// size of 0 keeps the system's. Throws std::runtime_error when it does not succeed.
    explicit Client(std::uint16_t port, int receiveBuffer = 0,
                    std::chrono::milliseconds limit = PATIENCE, const char* address = "127.0.0.1");

    /// False when the server took nothing more.
    bool send(std::string_view bytes);

    /// Waits for `count` bytes; fewer at the end of the stream or when `limit` has passed.
    std::string receive(std::size_t count, std::chrono::milliseconds limit = PATIENCE);

    /// Waits for a line end and returns the text before it; what came, when none comes.
    std::string receiveLine(std::chrono::milliseconds limit = PATIENCE);

    /// Sends `command` and returns the answer line.
    std::string request(std::string_view command);

    /// Sends `command` and returns the framed error text, from "^" to "^".
    std::string requestError(std::string_view command);

    /// Waits until the server has ended the connection without sending a byte more.
    bool waitForEnd(std::chrono::milliseconds limit = PATIENCE);

    /// Ends the connection with a reset instead of an orderly end.
    void reset();

    /// Ends the connection in an orderly way.
    void close();

    /// Tells the server that nothing more comes, and goes on receiving.
    void finishSending();

    std::uint16_t localPort() const;

    int descriptor() const { return socket_.number(); }

private:
    bool waitForInput(std::chrono::steady_clock::time_point deadline) const;

    Descriptor socket_;
};

} // namespace support
