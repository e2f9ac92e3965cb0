#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "BoardServer.h"
#include "support/LogLines.h"

namespace {

using support::Client;
using support::countOf;
using testing::HasSubstr;
using testing::Not;

// Only one port changes afterwards: a board reads one after the other.
const std::vector<std::string> INPUTS_BEFORE = {"--inputs", "00", "02"};

/// One answer and one change, so that everything that debug output is about has happened.
void serveOnce(BoardServer& served) {
    served.waitUntilServing();
    Client listener = served.connectListener();
    EXPECT_EQ(listener.request("R0D0"), "R0R");
    served.board.command("inputs 01 02");
    EXPECT_EQ(listener.receiveLine(), "U402000|402000U");
}

TEST(BoardLaunch, IsTheFirstThingToldAndNoError) {
    ServingBoard served;
    EXPECT_EQ(served.server.outputLines().front(), "[Launcher] Launching in FTDI mode.");
    EXPECT_THAT(served.server.error(), Not(HasSubstr("Launching")));
}

TEST(BoardLaunch, WithDebugOutputTellsCommandsAndBytes) {
    BoardServer served(INPUTS_BEFORE, {"--debug"});
    serveOnce(served);
    EXPECT_EQ(served.server.outputLines().front(), "[Launcher] Launching in FTDI mode.");
    EXPECT_TRUE(served.server.waitForOutput("[FtdiService] sent V 30 30 v to FTDI-chip\n"));
    EXPECT_TRUE(served.server.waitForOutput("[FtdiService] received update message: "
                                            "(49 01 02 69)\n"));
    EXPECT_TRUE(served.server.waitForOutput("[ftdi/FtdiCommandHandler] Received a command R with "
                                            "parameters (pin:13 & value:0)\n"));
}

TEST(BoardLaunch, WithoutDebugOutputTellsNeither) {
    BoardServer served(INPUTS_BEFORE);
    serveOnce(served);
    const std::string output = served.server.output();
    EXPECT_EQ(countOf("to FTDI-chip", output), 0U);
    EXPECT_EQ(countOf("received", output), 0U);
    EXPECT_EQ(countOf("Received a command", output), 0U);
}

class BoardLaunchWithoutRestart : public testing::TestWithParam<const char*> {};

TEST_P(BoardLaunchWithoutRestart, SendsNoRestartMessage) {
    ServingBoard served({"--product", GetParam()});
    EXPECT_EQ(served.board.value("requests-K"), 0U);
    const std::string line = std::string("PID: ") + GetParam() + ", requesting version info";
    EXPECT_EQ(countOf(line, served.server.output()), 1U);
}

INSTANTIATE_TEST_SUITE_P(ProductIds, BoardLaunchWithoutRestart, testing::Values("6001", "6015"),
                         [](const auto& test) { return std::string(test.param); });

TEST(BoardLaunch, DetachesTheKernelsDriver) {
    BoardServer served({"--product", "6001"}, {}, {"kernel-driver on"});
    served.waitUntilServing();
    EXPECT_TRUE(served.serves());
    EXPECT_EQ(served.board.value("driver-detaches"), 1U);
}

TEST(BoardLaunch, TriesAgainWhenTheBridgeRefusesToPurge) {
    BoardServer served({}, {}, {"fail purge 1"});
    EXPECT_TRUE(served.server.waitForError(
        "[FtdiService] Error when purging buffers: -1 (FTDI purge of RX buffer failed)\n"));
    EXPECT_TRUE(served.serves());
}

TEST(BoardLaunch, NamesOnlyTheSecondProductIdWhenTheFirstCannotBeClaimed) {
    BoardServer served({"--product", "6001"}, {}, {"fail claim 1"});
    served.waitUntilServing();
    EXPECT_TRUE(served.server.waitForError("unable to open ftdi device: -3 (device not found)\n"));
    EXPECT_EQ(countOf("claim", served.server.error()), 0U);
}

} // namespace
