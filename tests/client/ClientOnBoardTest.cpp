#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Harness.h"
#include "support/Eventually.h"
#include "support/VirtualBoard.h"

namespace {

class OwnBoard {
protected:
    support::VirtualBoard board_{{"--inputs", "01", "80", "--firmware", "2", "5"}};
};

/// The board comes before the server, and goes after it.
class ClientOnBoard : protected OwnBoard, public ProgramOnServer {
protected:
    ClientOnBoard() : ProgramOnServer("--ftdi", board_.environment()) {}
};

} // namespace

TEST_F(ClientOnBoard, InfoShowsFirmwareDirectionsAndLevels) {
    const auto info = nlohmann::json::parse(run({"info", "--json"}).output);
    EXPECT_EQ(info["backEnd"], "board");
    EXPECT_EQ(info["firmware"], "v2.5");
    EXPECT_EQ(info["inputs"], 16);
    EXPECT_EQ(info["outputs"], 13);
    EXPECT_EQ(info["pins"].size(), 29U);
    EXPECT_EQ(info["pins"][0].dump(), R"({"direction":"output","level":null,"pin":0})");
    EXPECT_EQ(info["pins"][1].dump(), R"({"direction":"output","level":0,"pin":1})");
    EXPECT_EQ(info["pins"][13].dump(), R"({"direction":"input","level":1,"pin":13})");
    EXPECT_EQ(info["pins"][27].dump(), R"({"direction":"input","level":0,"pin":27})");
    EXPECT_EQ(info["pins"][28].dump(), R"({"direction":"input","level":1,"pin":28})");
}

TEST_F(ClientOnBoard, GetsInputs) {
    expectOutput({"get", "13", "14", "0x1c"}, "13=high 14=low 28=high\n");
}

TEST_F(ClientOnBoard, SetsOutputsAndReadsBackWhatIsRemembered) {
    expectOutput({"set", "0=1", "1=1", "12=1", "8=1", "8=0"}, "");
    board_.waitFor("output-12 1");
    board_.waitFor("output-0 1");
    board_.waitFor("output-11 1");
    board_.waitFor("output-7 0");
    expectOutput({"get", "1", "8"}, "1=high 8=low\n");
    expectOutput({"toggle", "1"}, "1=low\n");
    board_.waitFor("output-0 0");
}

TEST_F(ClientOnBoard, ShowsTheTrueDirections) {
    expectOutput({"direction", "12"}, "12=output\n");
    expectOutput({"direction", "13"}, "13=input\n");
}

TEST_F(ClientOnBoard, MonitorPrintsChangesOfInputs) {
    const auto monitor = startMonitor({"-n3", "--format-line=%E %o"});
    board_.command("inputs 03 80");
    ASSERT_TRUE(monitor->waitForOutput("rising 14"));
    board_.command("inputs 02 00");
    EXPECT_EQ(monitor->waitForEnd(), 0);
    EXPECT_EQ(monitor->output(), "watching 16 pins of the board back end at " + server_.address() +
                                     " by change notices, read again every 5000 ms\n"
                                     "rising 14\nfalling 13\nfalling 28\n");
}

TEST_F(ClientOnBoard, WaitEndsWithAnInputChange) {
    const auto wait = start({"wait", "14=1", "--timeout=1m"});
    board_.command("inputs 03 80");
    EXPECT_EQ(wait->waitForEnd(), 0);
    EXPECT_EQ(wait->output(), "14=high\n");
}

TEST_F(ClientOnBoard, CommandsFailWhileTheBoardIsAway) {
    board_.command("unplug");
    EXPECT_TRUE(support::eventually([&] { return run({"get", "13"}).status == 3; }));
}

TEST_F(ClientOnBoard, MonitorReportsWhatChangedWhileTheBoardWasAway) {
    const auto monitor =
        startMonitor({"--reconnect", "-n3", "--poll=200ms", "--format-line=%E %o"});
    board_.command("unplug");
    ASSERT_TRUE(monitor->waitForError("trying to connect again"));
    board_.command("inputs 00 81 quiet");
    board_.command("plug");
    ASSERT_TRUE(monitor->waitForError("connected to " + server_.address() + " again"));
    ASSERT_TRUE(monitor->waitForOutput("falling 13\nrising 21\n")) << monitor->output();
    board_.command("inputs 00 01");
    EXPECT_EQ(monitor->waitForEnd(), 0);
    EXPECT_TRUE(monitor->output().ends_with("\nfalling 13\nrising 21\nfalling 28\n"))
        << monitor->output();
}

TEST_F(ClientOnBoard, TheExampleListsThePins) {
    support::Process example({.executable = LIST_PINS_PATH, .arguments = {server_.address()}});
    EXPECT_EQ(example.waitForEnd(), 0);
    EXPECT_TRUE(example.output().starts_with("board back end\n 0 output unknown\n 1 output low\n"))
        << example.output();
    EXPECT_NE(example.output().find("\n13 input high\n14 input low\n"), std::string::npos);
}

TEST_F(ClientOnBoard, TheExampleDrivesAnOutputAsTheInverseOfAnInput) {
    const support::Process example(
        {.executable = FOLLOW_INPUT_PATH, .arguments = {server_.address()}});
    board_.command("inputs 00 80");
    board_.waitFor("output-0 1");
    board_.command("inputs 01 80");
    board_.waitFor("output-0 0");
}
