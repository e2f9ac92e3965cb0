#include <vector>

#include "BoardServer.h"
#include "support/ProcessInfo.h"
#include "support/Scale.h"

namespace {

using support::Client;

constexpr int LISTENER_COUNT = 4;
constexpr int WRITER_COUNT = 16;
constexpr std::size_t DESCRIPTORS_LEFT_BY_A_RESET = 3;

/// Serves all clients, pulls the board out, and puts it back when nobody is connected any more.
void pullOutAndPutBack(BoardServer& served, std::size_t round) {
    served.waitUntilServing(round);
    std::vector<Client> clients;
    for (int index = 0; index < LISTENER_COUNT; ++index) {
        clients.push_back(served.connectListener());
    }
    served.board.command("inputs 01 00");
    for (Client& listener : clients) {
        ASSERT_EQ(listener.receiveLine(), "U2000|2000U");
    }
    for (int index = 0; index < WRITER_COUNT; ++index) {
        clients.push_back(served.connect());
        ASSERT_EQ(clients.back().request("W011"), "W1W");
    }
    served.board.command("unplug");
    for (Client& client : clients) {
        ASSERT_TRUE(client.waitForEnd());
    }
    served.expectRefusal();
    served.board.command("inputs 00 00 quiet");
    served.board.command("plug");
    ASSERT_TRUE(served.serves());
}

/// The number of descriptors without what prescribed resets leave behind.
std::size_t descriptorsBesidesResets(const BoardServer& served) {
    return support::descriptorCount(served.server.pid()) -
           DESCRIPTORS_LEFT_BY_A_RESET * static_cast<std::size_t>(served.board.value("restarts"));
}

TEST(BoardEndurance, ManyLossesLeaveNothingBehind) {
    const std::size_t count = support::rounds(100, 15);
    // The allocator gives each thread a pool of its own where it can, and each pool settles at the
    // most it ever held; with a single one, what is left behind is seen at once.
    BoardServer served({}, {}, {}, {"MALLOC_ARENA_MAX=1"});
    pullOutAndPutBack(served, 1);
    const pid_t process = served.server.pid();
    const auto settled = [&] { return support::threadCount(process) <= 4; };
    ASSERT_TRUE(support::eventually(settled));
    const std::size_t threads = support::threadCount(process);
    const std::size_t descriptors = descriptorsBesidesResets(served);
    const long memory = support::anonymousKilobytes(process);
    for (std::size_t round = 2; round <= count; ++round) {
        pullOutAndPutBack(served, round);
        ASSERT_FALSE(testing::Test::HasFailure()) << "round " << round;
    }
    EXPECT_TRUE(support::eventually([&] { return support::threadCount(process) <= threads; }));
    EXPECT_TRUE(support::eventually([&] {
        return descriptorsBesidesResets(served) <= descriptors;
    })) << descriptorsBesidesResets(served)
        << " instead of " << descriptors << " after " << served.board.value("restarts")
        << " restarts";
    const long growth = support::anonymousKilobytes(process) - memory;
    RecordProperty("growth in KiB", std::to_string(growth));
    const auto restarts = static_cast<long>(served.board.value("restarts"));
    RecordProperty("restarts", std::to_string(restarts));
    constexpr long ALLOWED_KILOBYTES = 128;
    if (!support::SANITIZED) {
        EXPECT_LE(growth, ALLOWED_KILOBYTES * (1 + restarts));
    }
}

} // namespace
