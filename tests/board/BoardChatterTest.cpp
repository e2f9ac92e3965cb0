#include <atomic>
#include <thread>

#include "BoardServer.h"
#include "support/LogLines.h"

namespace {

using support::Client;
using support::countOf;

/// A report waits when the server drains what the board sent before; others follow at this rate.
void meetReports(BoardServer& served, int perSecond) {
    served.board.waitFor("pending-reads >= 1");
    served.board.command("flood " + std::to_string(perSecond));
    served.board.waitFor("input-changes >= 1");
    served.board.command("stall reads off");
}

TEST(BoardChatter, ReportsThatFollowTooCloselyKeepTheServerFromGettingReady) {
    BoardServer served({}, {}, {"stall reads on"});
    meetReports(served, 200);
    ASSERT_TRUE(served.server.waitForOutput("flushed msg I", 100));
    EXPECT_EQ(served.board.value("requests-V"), 0U);
    EXPECT_FALSE(served.isListening());
    served.board.command("flood off");
    EXPECT_TRUE(served.serves());
}

TEST(BoardChatter, FortyReportsASecondDoNot) {
    BoardServer served({}, {}, {"stall reads on"});
    meetReports(served, 40);
    served.waitUntilServing();
    EXPECT_TRUE(served.serves());
}

TEST(BoardChatter, ReadyServerTellsEachOfAThousandReportsASecond) {
    ServingBoard served;
    Client listener = served.connectListener();
    Client other = served.connect();
    served.board.command("flood 1000 1000");
    std::string line;
    for (int number = 1; number <= 1000; ++number) {
        line = listener.receiveLine();
        ASSERT_FALSE(line.empty()) << "after " << number;
    }
    EXPECT_TRUE(line.ends_with("|1d006000U")) << line << ", not 0x03E8 on ports A and B";
    EXPECT_EQ(other.request("W011"), "W1W");
}

/// Turns an input over and over until the end.
class Chatter {
public:
    Chatter(const support::VirtualBoard& board, std::chrono::milliseconds pause)
        : thread_([this, &board, pause] {
              for (int level = 1; !stops_; level = 1 - level) {
                  board.command("inputs 0" + std::to_string(level) + " 00");
                  std::this_thread::sleep_for(pause);
              }
          }) {}
    Chatter(const Chatter&) = delete;
    Chatter& operator=(const Chatter&) = delete;
    ~Chatter() {
        stops_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stops_ = false;
    std::thread thread_;
};

TEST(RestlessBoard, IsServedFromTheStart) {
    if (!SimulatedPart::isWanted()) {
        GTEST_SKIP() << "the model has no limit: a report that waits at the start holds it up";
    }
    BoardServer served({"--unplugged"});
    const Chatter chatter(served.board, std::chrono::milliseconds(5));
    served.board.command("plug");
    served.waitUntilServing();
    Client client = served.connect();
    EXPECT_EQ(client.request("W011"), "W1W");
    served.board.waitFor("output-0 1");
    for (std::size_t time = 2; time < 5; ++time) {
        served.comeBack();
        served.waitUntilServing(time);
    }
}

} // namespace
