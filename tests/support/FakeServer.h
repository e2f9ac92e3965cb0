#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gpio-client/Types.h>

#include "support/Descriptor.h"

namespace support {

/// The fake server's end of one connection.
class FakePeer {
public:
    explicit FakePeer(int descriptor) : descriptor_(descriptor) {}

    /// What one read delivers; empty when the client has hung up or says nothing for long.
    std::string receive() const;

    /// False when the client is gone.
    bool send(std::string_view bytes) const;

    /// Sends each piece after the client's system has acknowledged the one before.
    void sendInPieces(const std::vector<std::string>& pieces) const;

    /// Receives a command for each answer and sends that. Returns the commands.
    std::vector<std::string> answer(const std::vector<std::string>& answers) const;

    /// Receives and answers nothing until the client hangs up.
    void beSilent() const;

    /// Lets the connection end with a reset once the script has returned.
    void endWithReset() const;

    /// Receives commands and answers them like the test back end until the client hangs up.
    void beTestBackEnd() const;

private:
    int descriptor_;
};

/// What a board's server answers to the request that finds out the back end.
inline constexpr const char* BOARD_PROBE_ANSWER = "^INVALID COMMAND: I00^";

/// Listens on the loopback and plays a script to each client, one after the other.
class FakeServer {
public:
    using Script = std::function<void(const FakePeer&)>;

    explicit FakeServer(Script script, std::uint16_t port = 0, bool ipv6 = false);
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    gpioclient::Endpoint endpoint() const;
    std::uint16_t port() const { return port_; }

    /// Closes the listening socket and the present connection.
    void stop();

private:
    void run();
    void serve(int descriptor);

    Script script_;
    bool ipv6_;
    Descriptor listener_;
    std::uint16_t port_ = 0;
    std::atomic<bool> stopped_ = false;
    std::mutex mutex_;
    int connection_ = -1;
    std::thread thread_;
};

/// Answers as many commands as there are answers, and then nothing until the client hangs up.
FakeServer::Script answering(std::vector<std::string> answers);

} // namespace support
