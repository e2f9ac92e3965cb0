#include <future>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <gpio-client/ChangeWatcher.h>

#include "Harness.h"
#include "support/VirtualBoard.h"

namespace {

constexpr std::chrono::seconds PATIENCE{60};

/// The program against a server with a virtual board of its own.
class ClientOnBoard : public testing::Test {
protected:
    Outcome run(const std::vector<std::string>& arguments) const {
        return runClient(server_.address(), arguments);
    }

    std::unique_ptr<Program> start(const std::vector<std::string>& arguments) const {
        return startClient(server_.address(), arguments);
    }

    void expectOutput(const std::vector<std::string>& arguments, const std::string& output) const {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.output, output);
        EXPECT_EQ(outcome.errors, "");
        EXPECT_EQ(outcome.status, 0);
    }

    VirtualBoard board_{{"--inputs", "01", "80", "--firmware", "2", "5"}};
    ServerProcess server_{"--ftdi", board_.environment()};
};

} // namespace

TEST_F(ClientOnBoard, InfoShowsFirmwareDirectionsAndLevels) {
    const auto info = nlohmann::json::parse(run({"info", "--json"}).output);
    EXPECT_EQ(info["backEnd"], "board");
    EXPECT_EQ(info["firmware"], "v2.5");
    EXPECT_EQ(info["inputs"], 16);
    EXPECT_EQ(info["outputs"], 13);
    EXPECT_EQ(info["pins"][12]["direction"], "output");
    EXPECT_EQ(info["pins"][13]["direction"], "input");
    EXPECT_EQ(info["pins"][13]["level"], 1);
    EXPECT_EQ(info["pins"][28]["level"], 1);
    EXPECT_EQ(info["pins"][27]["level"], 0);
    EXPECT_TRUE(info["pins"][0]["level"].is_null());
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
}

TEST_F(ClientOnBoard, TogglesARememberedOutput) {
    expectOutput({"toggle", "3"}, "3=high\n");
    board_.waitFor("output-2 1");
    expectOutput({"toggle", "3"}, "3=low\n");
    board_.waitFor("output-2 0");
}

TEST_F(ClientOnBoard, ShowsTheTrueDirections) {
    expectOutput({"direction", "12"}, "12=output\n");
    expectOutput({"direction", "13"}, "13=input\n");
}

TEST_F(ClientOnBoard, MonitorPrintsChangesOfInputs) {
    const auto monitor = start({"monitor", "--banner", "-n3", "--format-line=%E %o"});
    ASSERT_TRUE(monitor->waitForOutput("by change notices"));
    board_.command("inputs 03 80");
    ASSERT_TRUE(monitor->waitForOutput("rising 14"));
    board_.command("inputs 02 00");
    EXPECT_EQ(monitor->wait(), 0);
    EXPECT_TRUE(monitor->output().ends_with("\nrising 14\nfalling 13\nfalling 28\n"))
        << monitor->output();
}

TEST_F(ClientOnBoard, WaitEndsWithAnInputChange) {
    const auto wait = start({"wait", "14=1", "--timeout=1m"});
    board_.command("inputs 03 80");
    EXPECT_EQ(wait->wait(), 0);
    EXPECT_EQ(wait->output(), "14=high\n");
}

TEST_F(ClientOnBoard, CommandsFailWhileTheBoardIsAway) {
    board_.command("unplug");
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (run({"get", "13"}).status == 0 && std::chrono::steady_clock::now() < deadline) {
    }
    EXPECT_EQ(run({"--timeout=10s", "get", "13"}).status, 3);
}

TEST_F(ClientOnBoard, MonitorReportsWhatChangedWhileTheBoardWasAway) {
    const auto monitor =
        start({"monitor", "--banner", "--reconnect", "-n3", "--poll=200ms", "--format-line=%E %o"});
    ASSERT_TRUE(monitor->waitForOutput("by change notices"));
    board_.command("unplug");
    ASSERT_TRUE(monitor->waitForErrors("trying to connect again"));
    board_.command("inputs 00 81 quiet");
    board_.command("plug");
    ASSERT_TRUE(monitor->waitForErrors("connected to " + server_.address() + " again"));
    ASSERT_TRUE(monitor->waitForOutput("falling 13\nrising 21\n")) << monitor->output();
    board_.command("inputs 00 01");
    EXPECT_EQ(monitor->wait(), 0);
    EXPECT_TRUE(monitor->output().ends_with("\nfalling 13\nrising 21\nfalling 28\n"))
        << monitor->output();
}

TEST_F(ClientOnBoard, TheExampleListsThePins) {
    Program example({LIST_PINS_PATH, server_.address()});
    EXPECT_EQ(example.wait(), 0);
    EXPECT_TRUE(example.output().starts_with("board back end\n 0 output unknown\n 1 output low\n"))
        << example.output();
    EXPECT_NE(example.output().find("\n13 input high\n14 input low\n"), std::string::npos);
}

TEST_F(ClientOnBoard, TheExampleDrivesAnOutputAsTheInverseOfAnInput) {
    const Program example({FOLLOW_INPUT_PATH, server_.address()});
    board_.command("inputs 00 80");
    board_.waitFor("output-0 1");
    board_.command("inputs 01 80");
    board_.waitFor("output-0 0");
}

TEST_F(ClientOnBoard, ChangeWatcherIsToldOfAnInput) {
    std::promise<gpioclient::PinMask> high;
    const gpioclient::ChangeWatcher watcher(
        gpioclient::Endpoint::parse(server_.address()), {},
        [&, told = false](const gpioclient::ChangeNotice& notice) mutable {
            if (!told) {
                told = true;
                high.set_value(notice.high);
            }
        },
        nullptr);
    board_.command("inputs 02 80");
    auto future = high.get_future();
    ASSERT_EQ(future.wait_for(PATIENCE), std::future_status::ready);
    EXPECT_EQ(future.get(), gpioclient::PinMask{1} << 14 | gpioclient::PinMask{1} << 28);
}
