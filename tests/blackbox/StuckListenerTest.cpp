#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/Client.h"
#include "support/Descriptor.h"
#include "support/ServerProcess.h"
#include "support/VirtualBoard.h"

using namespace std::chrono_literals;
using support::Client;
using support::ServerOptions;
using support::ServerProcess;

namespace {

using Clock = std::chrono::steady_clock;

// The server gives a peer that takes nothing 30 s; the rest is for a slow machine.
constexpr auto DROP_LIMIT = 50s;

/// A loopback interface of this test's own, with send buffers so small that they are soon full.
/// What is started meanwhile uses it too.
class SmallLoopback {
public:
    SmallLoopback() {
        if (unshare(CLONE_NEWNET) != 0) {
            refusal = std::strerror(errno);
        } else if (std::system("ip link set lo up") != 0 || // NOLINT(cert-env33-c)
                   !limitSendBuffers()) {
            refusal = "the buffers cannot be set";
        }
    }

    SmallLoopback(const SmallLoopback&) = delete;
    SmallLoopback& operator=(const SmallLoopback&) = delete;
    ~SmallLoopback() { setns(home.number(), CLONE_NEWNET); }

    /// Why it cannot be had; empty when it can.
    const std::string& whyNot() const { return refusal; }

private:
    static bool limitSendBuffers() {
        std::ofstream file("/proc/sys/net/ipv4/tcp_wmem");
        file << "4096 4096 4096" << std::flush;
        return file.good();
    }

    support::Descriptor home{open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)};
    std::string refusal;
};

ServerOptions onBoard(const VirtualBoard& board) {
    ServerOptions options;
    options.arguments = {"--port=0", "--ftdi"};
    for (const std::string& setting : board.environment()) {
        const auto equals = setting.find('=');
        options.environment.emplace_back(setting.substr(0, equals), setting.substr(equals + 1));
    }
    return options;
}

/// Sends until the other end has taken nothing for a while: its own answers have filled every
/// buffer on the way back, since nobody reads them.
void stuff(const Client& client) {
    constexpr auto QUIET = 2s;
    std::string commands;
    for (int count = 0; count < 1000; ++count) {
        commands += "P000";
    }
    // Whole commands only: what follows a part of one would be read askew.
    std::size_t sent = 0;
    auto lastProgress = Clock::now();
    while (Clock::now() - lastProgress < QUIET) {
        const ssize_t count = ::send(client.descriptor(), commands.data() + sent,
                                     commands.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            sent = (sent + static_cast<std::size_t>(count)) % commands.size();
            lastProgress = Clock::now();
        } else if (count < 0 && errno != EAGAIN && errno != EINTR) {
            FAIL() << "the server ended the connection while it was being filled";
        }
    }
}

/// A server on a board, two clients that listen and one that listens and never reads.
class StuckListener : public testing::Test {
protected:
    void SetUp() override {
        if (!loopback.whyNot().empty()) {
            GTEST_SKIP() << "no network namespace of its own: " << loopback.whyNot();
        }
        ASSERT_TRUE(server.waitForOutput("Device is ready for actual use"));
        ASSERT_EQ(first.request("L000"), "LL");
        ASSERT_EQ(second.request("L000"), "LL");
        ASSERT_TRUE(stuck.send("L000"));
        stuff(stuck);
    }

    /// More CHANGES than what little room may be left in the stuck client's buffers can take.
    void changeInputs() const {
        for (int change = 0; change < CHANGES; ++change) {
            board.command(change % 2 == 0 ? "inputs 01 00" : "inputs 00 00");
        }
    }

    static constexpr int CHANGES = 100;

    SmallLoopback loopback;
    VirtualBoard board;
    ServerProcess server{onBoard(board)};
    Client first{server.port()};
    Client second{server.port()};
    Client stuck{server.port(), 1};
};

} // namespace

TEST_F(StuckListener, OthersGetEveryChangeLateButWhole) {
    changeInputs();
    for (Client* const other : {&first, &second}) {
        for (int change = 0; change < CHANGES; ++change) {
            ASSERT_EQ(other->receiveLine(DROP_LIMIT),
                      change % 2 == 0 ? "U2000|2000U" : "U2000|0000U");
        }
    }
}

TEST_F(StuckListener, IsDroppedWhileTheOthersStay) {
    changeInputs();
    EXPECT_TRUE(server.waitForOutput("was ended.", 1, DROP_LIMIT));
    EXPECT_EQ(second.receiveLine(DROP_LIMIT), "U2000|2000U");
    EXPECT_FALSE(server.waitForOutput("was ended.", 2, 100ms));
}

TEST_F(StuckListener, DoesNotHideTheLossOfTheBoardForLonger) {
    changeInputs();
    board.command("unplug");
    EXPECT_TRUE(server.waitForError("Closing server-socket (device unavailable).", 1, DROP_LIMIT));
}

TEST_F(StuckListener, DoesNotDelayTheAnswersToOthers) {
    changeInputs();
    EXPECT_TRUE(second.send("I000"));
    std::string received;
    while (received.find("I0010I") == std::string::npos) {
        const std::string more = second.receive(1, 10s);
        ASSERT_FALSE(more.empty()) << "only [" << received << "]";
        received += more;
    }
}
