#include "io/Line.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/BrokenPipes.h"
#include "support/ConnectedPair.h"
#include "support/LeastTime.h"
#include "support/LogCapture.h"

using io::Line;
using support::BrokenPipes;
using support::ConnectedPair;
using support::connectionProblem;
using namespace std::chrono_literals;

namespace {

using Lines = std::vector<std::string>;

// More than the buffers between the two ends hold.
const std::string LONG_TEXT(8 << 20, 'x');

std::chrono::steady_clock::duration timeOf(const std::function<void()>& step) {
    const auto began = std::chrono::steady_clock::now();
    step();
    return std::chrono::steady_clock::now() - began;
}

const std::string FAILURE = "Failed to write to connection";

class OutgoingLine : public testing::Test {
protected:
    support::LogCapture capture_;
    ConnectedPair peer_;
};

} // namespace

TEST_F(OutgoingLine, IsATextAndALineEnd) {
    Line line(peer_.connection, "R1R");
    EXPECT_TRUE(line.send());
    EXPECT_TRUE(line.isWhole());
    EXPECT_EQ(peer_.receive(100), "R1R\n");
}

TEST_F(OutgoingLine, IsTwoWrites) {
    ConnectedPair packets(SOCK_SEQPACKET);
    Line(packets.connection, "R1R").sendWhole();
    EXPECT_EQ(packets.receive(100), "R1R");
    EXPECT_EQ(packets.receive(100), "\n");
}

TEST_F(OutgoingLine, OnAClosedConnectionFails) {
    peer_.connection.closeConnection();
    EXPECT_EQ(connectionProblem([&] { Line(peer_.connection, "R1R").send(); }), FAILURE);
    EXPECT_EQ(connectionProblem([&] { peer_.connection << ""; }), FAILURE);
}

TEST_F(OutgoingLine, DoesNotWaitUnlessToldTo) {
    Line line(peer_.connection, LONG_TEXT);
    const auto send = [&] { return timeOf([&] { EXPECT_FALSE(line.send()); }); };
    EXPECT_LT(support::leastTime(1s, send), 1s);
    EXPECT_FALSE(line.isWhole());
    EXPECT_FALSE(peer_.connection.isClosed());
}

TEST_F(OutgoingLine, ReachesASlowReaderWholeAndOnce) {
    std::string received;
    std::thread reader([&] { received = peer_.receive(LONG_TEXT.size() + 1, MSG_WAITALL); });
    Line(peer_.connection, LONG_TEXT).sendWhole();
    reader.join();
    EXPECT_TRUE(received == LONG_TEXT + "\n");
}

TEST_F(OutgoingLine, ThatIsNotTakenEndsTheConnectionAfterTwoSeconds) {
    const BrokenPipes signals;
    std::string problem;
    const auto waited = timeOf([&] {
        problem = connectionProblem([&] { Line(peer_.connection, LONG_TEXT).sendWhole(); });
    });
    EXPECT_EQ(problem, FAILURE);
    EXPECT_GE(waited, 2s);
    EXPECT_TRUE(peer_.connection.isClosed());
    EXPECT_EQ(capture_.outputLines(),
              (Lines{"[Connection] Failed to write to socket connection to: address:[0.0.0.0], "
                     "port:[0]",
                     "[Connection] " + FAILURE}));
    EXPECT_EQ(BrokenPipes::seen(), 0);
}

TEST_F(OutgoingLine, WaitsNoLongerForAClientThatTakesAByteNowAndThen) {
    for (const bool takes : {false, true}) {
        const auto tryOnce = [&] {
            ConnectedPair pair;
            std::atomic<bool> over = false;
            std::thread client([&] {
                while (takes && !over && !pair.receive(1).empty()) {
                    std::this_thread::sleep_for(10ms);
                }
            });
            const auto waited = timeOf([&] {
                EXPECT_EQ(connectionProblem([&] { pair.connection << LONG_TEXT; }), FAILURE);
            });
            over = true;
            client.join();
            return waited;
        };
        EXPECT_LT(support::leastTime(3s, tryOnce), 3s) << takes;
    }
}

TEST_F(OutgoingLine, RaisesTheSignalForAPeerThatHasGoneAndLeavesTheConnectionOpen) {
    const BrokenPipes signals;
    peer_.peer.reset();
    EXPECT_EQ(connectionProblem([&] { Line(peer_.connection, "R1R").send(); }), FAILURE);
    EXPECT_EQ(BrokenPipes::seen(), 1);
    EXPECT_FALSE(peer_.connection.isClosed());
}

TEST_F(OutgoingLine, RaisesNoSignalWhenThisSideClosesTheConnectionMeanwhile) {
    const BrokenPipes signals;
    std::string problem;
    std::thread writer([&] {
        problem = connectionProblem([&] { Line(peer_.connection, LONG_TEXT).sendWhole(); });
    });
    EXPECT_EQ(peer_.receive(1), "x");
    peer_.connection.closeConnection();
    writer.join();
    EXPECT_EQ(problem, FAILURE);
    EXPECT_EQ(BrokenPipes::seen(), 0);
}

TEST_F(OutgoingLine, IsToldWhetherItsClientHasRoom) {
    ConnectedPair full;
    std::vector<Line> lines = {{peer_.connection, "U"}, {full.connection, LONG_TEXT}};
    EXPECT_FALSE(lines[1].send());
    EXPECT_TRUE(Line::waitForRoom(lines, Line::Clock::now() + 1s));
    EXPECT_TRUE(lines[0].hasRoom());
    EXPECT_FALSE(lines[1].hasRoom());
    EXPECT_FALSE(Line::waitForRoom(lines, Line::Clock::now()));
}

TEST_F(OutgoingLine, ThatIsWholeEndsTheConnectionOnlyOfAClientThatTookNothing) {
    for (const bool takes : {true, false}) {
        ConnectedPair full;
        EXPECT_FALSE(Line(full.connection, LONG_TEXT).send());
        Line line(full.connection, "", "");
        line.send();
        // Not whole before there is room; an empty text is.
        std::vector<Line> lines = {line};
        ASSERT_TRUE(Line::waitForRoom(lines, Line::Clock::now() + 10ms));
        EXPECT_FALSE(lines[0].hasRoom());
        if (takes) {
            EXPECT_NE(full.receive(64 << 10), "");
        }
        EXPECT_EQ(connectionProblem([&] { lines[0].sendOrClose(); }),
                  takes ? "nothing was thrown" : FAILURE);
        EXPECT_EQ(full.connection.isClosed(), !takes);
    }
}

TEST_F(OutgoingLine, ThatWasNeverWaitedForLeavesTheConnectionOpen) {
    Line line(peer_.connection, "U");
    EXPECT_TRUE(line.send());
    line.sendOrClose();
    EXPECT_FALSE(peer_.connection.isClosed());
}
