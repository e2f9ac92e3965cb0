#include "BoardServer.h"
#include "support/ProcessInfo.h"
#include "support/Scale.h"

namespace {

/// Connects `count` times more, each time with a restart that the board answers by coming back.
void reconnectWithRestart(BoardServer& served, std::size_t count) {
    for (std::size_t time = 2; time < count + 2; ++time) {
        served.comeBack();
        served.waitUntilServing(time);
        ASSERT_FALSE(testing::Test::HasFailure()) << "connect " << time;
    }
}

// Neither the handle nor the library's context from before the restart is ever closed, and such a
// context keeps a note of every device that comes or goes.
TEST(BoardRestart, EachConnectLeavesThreeDescriptorsAndSomeMemoryBehind) {
    constexpr std::size_t CONNECTS = 4;
    constexpr std::size_t LEFT_BY_EACH = 3;
    constexpr long MOST_KILOBYTES_OF_EACH = 32;
    BoardServer served({"--product", "6015"}, {"--restart"}, {}, {"MALLOC_ARENA_MAX=1"});
    served.waitUntilServing();
    const std::size_t before = support::descriptorCount(served.server.pid());
    const long memory = support::anonymousKilobytes(served.server.pid());
    reconnectWithRestart(served, CONNECTS);
    ASSERT_EQ(served.board.value("restarts"), CONNECTS + 1);
    EXPECT_EQ(support::descriptorCount(served.server.pid()), before + LEFT_BY_EACH * CONNECTS);
    const long growth = support::anonymousKilobytes(served.server.pid()) - memory;
    RecordProperty("growth in KiB", std::to_string(growth));
    if (!support::SANITIZED) {
        EXPECT_LE(growth, MOST_KILOBYTES_OF_EACH * static_cast<long>(CONNECTS));
    }
}

TEST(BoardRestart, FailedOneLeavesTwoDescriptorsMoreAndTheNextAttemptsNone) {
    constexpr std::size_t LEFT_BY_IT = 5;
    constexpr std::size_t HOTPLUG_WATCH = 2; // open as long as any context of the library is
    BoardServer served({"--unplugged"}, {}, {"restart stay 50"});
    ASSERT_TRUE(served.server.waitForOutput("retrying to connect in 5 seconds", 2));
    const auto descriptors = [&] { return support::descriptorCount(served.server.pid()); };
    const std::size_t before = descriptors();
    served.board.command("plug");
    served.board.waitFor("refused-claims >= 3");
    EXPECT_TRUE(support::eventually([&] {
        return descriptors() == before + HOTPLUG_WATCH + LEFT_BY_IT;
    })) << descriptors()
        << " in the place of " << before;
    EXPECT_EQ(served.board.value("requests-K"), 1U);
}

TEST(BoardRestart, FirstProductIdIsResetUntilItDropsOffTheBus) {
    BoardServer served({"--product", "6001"}, {"--restart"});
    served.waitUntilServing();
    EXPECT_TRUE(served.serves());
    EXPECT_TRUE(served.server.waitForOutput("PID: 6001, sending reset commands until connection"));
    EXPECT_GE(served.board.value("restarts"), 1U);
}

TEST(BoardRestart, SecondProductIdIsResetOnce) {
    BoardServer served({"--product", "6015"}, {"--restart"});
    served.waitUntilServing();
    EXPECT_TRUE(served.serves());
    EXPECT_EQ(served.board.value("requests-K"), 1U);
    EXPECT_TRUE(served.server.waitForOutput("PID: 6015, sending one reset only"));
}

TEST(BoardRestart, BridgeThatStaysOnTheBusCannotBeClaimedASecondTime) {
    BoardServer served({"--product", "6015"}, {"--restart"}, {"restart stay 50"});
    served.board.waitFor("refused-claims >= 1");
    ASSERT_TRUE(served.server.waitForError("unable to open ftdi device"));
    EXPECT_FALSE(served.isListening());
    served.board.command("restart drop 50");
    served.board.command("unplug");
    served.board.command("plug");
    EXPECT_TRUE(served.serves());
}

TEST(BoardRestart, FirstProductIdThatIgnoresTheResetIsSentItForEver) {
    BoardServer served({"--product", "6001"}, {"--restart"}, {"restart ignore"});
    served.board.waitFor("requests-K >= 500");
    EXPECT_FALSE(served.isListening());
    served.board.command("restart drop 50");
    EXPECT_TRUE(served.serves());
}

TEST(BoardRestart, LossWhileTheVersionIsAskedForGoesUnnoticed) {
    BoardServer served({"--unplugged"}, {}, {"ignore V on"});
    served.board.command("plug");
    served.board.waitFor("requests-V >= 1");
    served.board.waitFor("pending-reads >= 1");
    served.board.command("unplug");
    served.board.command("ignore V off");
    ASSERT_TRUE(served.server.waitForOutput("Launch was successful."));
    ASSERT_TRUE(served.server.waitForError("writing to ftdi failed", 5));
    const auto claims = served.board.value("claims");
    served.board.command("plug");
    ASSERT_TRUE(served.server.waitForError("writing to ftdi failed", 10));
    EXPECT_TRUE(served.serves());
    EXPECT_EQ(served.board.value("claims"), claims);
}

} // namespace
