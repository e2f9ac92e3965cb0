#include <cstdint>
#include <vector>

#include "BoardServer.h"
#include "support/ProcessInfo.h"
#include "support/Scale.h"

namespace {

using support::Client;

constexpr int LISTENER_COUNT = 4;
constexpr int WRITER_COUNT = 16;
/// Three, and two more by one after which the board is not back in time.
constexpr std::size_t MOST_DESCRIPTORS_LEFT_BY_A_RESET = 5;

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
    const std::uint64_t restartsBefore = served.board.value("restarts");
    const std::size_t descriptors = support::descriptorCount(process);
    const long memory = support::anonymousKilobytes(process);
    for (std::size_t round = 2; round <= count; ++round) {
        pullOutAndPutBack(served, round);
        ASSERT_FALSE(testing::Test::HasFailure()) << "round " << round;
    }
    EXPECT_TRUE(support::eventually([&] { return support::threadCount(process) <= threads; }));
    const std::uint64_t restarted = served.board.value("restarts") - restartsBefore;
    EXPECT_TRUE(support::eventually([&] {
        return support::descriptorCount(process) <=
               descriptors + MOST_DESCRIPTORS_LEFT_BY_A_RESET * restarted;
    })) << support::descriptorCount(process)
        << " after " << descriptors << " and " << restarted << " restarts";
    const long growth = support::anonymousKilobytes(process) - memory;
    RecordProperty("growth in KiB", std::to_string(growth));
    RecordProperty("restarts", std::to_string(restarted));
    constexpr long ALLOWED_KILOBYTES = 128;
    // The pages of a sanitizer, or of an emulator with its translations, are none of the server's.
    if (!support::SANITIZED && !support::EMULATED) {
        EXPECT_LE(growth, ALLOWED_KILOBYTES * static_cast<long>(1 + restarted));
    }
}

} // namespace
