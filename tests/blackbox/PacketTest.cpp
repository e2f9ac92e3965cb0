#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "support/Client.h"
#include "support/LeastTime.h"
#include "support/Scale.h"
#include "support/ServerProcess.h"
#include "support/VirtualBoard.h"

using namespace std::chrono_literals;
using support::Client;
using support::ServerOptions;
using support::ServerProcess;
using support::VirtualBoard;

namespace {

using Exchange = std::pair<std::string, std::string>;
using Exchanges = std::vector<Exchange>;

constexpr int TIMES = support::rounds(1000, 100);

/// A server on either back end, and what its commands are answered with.
struct BackEnd {
    std::string name;
    bool onBoard;
    Exchanges exchanges;
};

const BackEnd BACK_ENDS[] = {
    {"SimulatedPins",
     false,
     {{"A00", "A0000A\n"},
      {"B00", "DBG\n"},
      {"D00", "D0D\n"},
      {"I00", "I0000I\n"},
      {"K00", "KK\n"},
      {"L00", "LL\n"},
      {"O00", "O0010O\n"},
      {"P00", "P0000P\n"},
      {"R00", "R0R\n"},
      {"S00", "S1S\n"},
      {"W00", "W1W\n"},
      {"x00", "^ UNKNOWN COMMAND: x00 ^"}}},
    {"Board",
     true,
     {{"A000", "A00000000A\n"},
      {"B000", "DBG\n"},
      {"D000", "D1D\n"},
      {"I000", "I0010I\n"},
      {"K000", "KK\n"},
      {"L000", "LL\n"},
      {"O000", "O000dO\n"},
      {"P000", "Pffffffffffffe000P\n"},
      {"R0D0", "R0R\n"},
      {"S000", "S0S\n"},
      {"W010", "W1W\n"},
      {"x000", "^ UNKNOWN COMMAND: x000 ^"}}},
};

void PrintTo(const BackEnd& backEnd, std::ostream* stream) {
    *stream << backEnd.name;
}

class Packets : public testing::TestWithParam<BackEnd> {
protected:
    void SetUp() override {
        ServerOptions options;
        if (GetParam().onBoard) {
            board_ = std::make_unique<VirtualBoard>();
            options.arguments = {"--port=0", "--ftdi"};
            options.environment = board_->environment();
        }
        server_ = std::make_unique<ServerProcess>(options);
        if (GetParam().onBoard) {
            ASSERT_TRUE(server_->waitForOutput("Device is ready for actual use"));
        }
        client_ = std::make_unique<Client>(server_->port());
    }

    /// Sends a command and returns what the first recv() after it takes.
    std::string answerTo(const std::string& command) {
        EXPECT_TRUE(client_->send(command));
        return nextPacket();
    }

    std::string nextPacket() const {
        pollfd input{client_->descriptor(), POLLIN, 0};
        EXPECT_EQ(poll(&input, 1, support::PATIENCE_MILLISECONDS), 1);
        std::array<char, 256> answer{};
        const ssize_t count = recv(client_->descriptor(), answer.data(), answer.size(), 0);
        return {answer.data(), count > 0 ? static_cast<std::size_t>(count) : 0};
    }

    /// Segments with data that the client has got.
    std::uint32_t dataSegments() const {
        tcp_info info{};
        socklen_t length = sizeof(info);
        getsockopt(client_->descriptor(), IPPROTO_TCP, TCP_INFO, &info, &length);
        return info.tcpi_data_segs_in;
    }

    std::chrono::steady_clock::duration slowestOf(int answers) {
        const Exchanges& exchanges = GetParam().exchanges;
        std::chrono::steady_clock::duration slowest{};
        for (int count = 0; count < answers; ++count) {
            // The last is an error text, which no line end follows.
            const auto& [command, answer] = count % 2 == 0 ? exchanges.front() : exchanges.back();
            const auto began = std::chrono::steady_clock::now();
            EXPECT_EQ(answerTo(command), answer);
            slowest = std::max(slowest, std::chrono::steady_clock::now() - began);
        }
        return slowest;
    }

    std::unique_ptr<VirtualBoard> board_;

private:
    std::unique_ptr<ServerProcess> server_;
    std::unique_ptr<Client> client_;
};

class ChangePackets : public Packets {};

INSTANTIATE_TEST_SUITE_P(On, ChangePackets, testing::Values(BACK_ENDS[1]),
                         [](const auto& test) { return test.param.name; });
INSTANTIATE_TEST_SUITE_P(On, Packets, testing::ValuesIn(BACK_ENDS),
                         [](const auto& test) { return test.param.name; });

} // namespace

TEST_P(Packets, AreOneForEachAnswer) {
    if (support::EMULATED) {
        GTEST_SKIP() << "the emulator does not pass on what the kernel counted";
    }
    for (const auto& [command, answer] : GetParam().exchanges) {
        const std::uint32_t before = dataSegments();
        int whole = 0;
        for (int count = 0; count < TIMES; ++count) {
            whole += answerTo(command) == answer ? 1 : 0;
        }
        EXPECT_EQ(whole, TIMES) << command;
        EXPECT_EQ(dataSegments() - before, static_cast<std::uint32_t>(TIMES)) << command;
    }
}

TEST_P(ChangePackets, AreOneForEachChange) {
    if (support::EMULATED) {
        GTEST_SKIP() << "the emulator does not pass on what the kernel counted";
    }
    ASSERT_EQ(answerTo("L000"), "LL\n");
    const std::uint32_t before = dataSegments();
    constexpr int CHANGES = 100;
    for (int change = 0; change < CHANGES; ++change) {
        const bool high = change % 2 == 0;
        board_->command(high ? "inputs 01 00" : "inputs 00 00");
        ASSERT_EQ(nextPacket(), high ? "U2000|2000U\n" : "U2000|0000U\n");
    }
    EXPECT_EQ(dataSegments() - before, static_cast<std::uint32_t>(CHANGES));
}

// What the system held back would leave after 200 ms.
TEST_P(Packets, AreNeverHeldBack) {
    constexpr auto LIMIT = 50ms;
    EXPECT_LE(support::leastTime(LIMIT, [this] { return slowestOf(10 * TIMES); }), LIMIT);
}
