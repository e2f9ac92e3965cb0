#include <array>
#include <csignal>
#include <memory>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Harness.h"
#include "support/FakeServer.h"
#include "support/ReservedPort.h"

/// Every test has a server in test mode of its own.
class TestModeProgramTest : public testing::Test {
protected:
    std::string address() const { return server_.address(); }

    Outcome run(const std::vector<std::string>& arguments) const {
        return runClient(address(), arguments);
    }

    std::unique_ptr<support::Process> start(const std::vector<std::string>& arguments) const {
        return startClient(address(), arguments);
    }

    void expectOutput(const std::vector<std::string>& arguments, const std::string& output) const {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.output, output);
        EXPECT_EQ(outcome.errors, "");
        EXPECT_EQ(outcome.status, 0);
    }

    RestartableServer server_{"--test"};
};

TEST_F(TestModeProgramTest, GetsFreshPinsAsLow) {
    expectOutput({"get", "0", "0xf"}, "0=low 15=low\n");
}

TEST_F(TestModeProgramTest, SetsSilentlyAndGetsWhatWasSet) {
    expectOutput({"set", "3=1", "4=high", "0x5=on", "4=0"}, "");
    expectOutput({"get", "3", "4", "5"}, "3=high 4=low 5=high\n");
    expectOutput({"--numeric", "get", "3", "4", "5"}, "1 0 1\n");
    expectOutput({"get", "3", "4", "--json"},
                 "[{\"pin\":3,\"level\":1},{\"pin\":4,\"level\":0}]\n");
}

TEST_F(TestModeProgramTest, TogglePrintsTheNewLevels) {
    expectOutput({"toggle", "7", "8"}, "7=high 8=high\n");
    expectOutput({"toggle", "7"}, "7=low\n");
    expectOutput({"toggle", "7", "--quiet"}, "");
    expectOutput({"get", "7"}, "7=high\n");
}

TEST_F(TestModeProgramTest, ShowsAndChangesDirections) {
    expectOutput({"direction", "3"}, "3=output\n");
    expectOutput({"direction", "3", "in"}, "");
    expectOutput({"direction", "3"}, "3=input\n");
    expectOutput({"direction", "3", "--numeric"}, "1\n");
    expectOutput({"direction", "3", "--json"}, "{\"pin\":3,\"direction\":\"input\"}\n");
}

TEST_F(TestModeProgramTest, InfoShowsATableOfAllPins) {
    run({"set", "0=1"});
    run({"direction", "15", "in"});
    std::string table = "server    " + address() +
                        "\nback end  test\nfirmware  -\npins      1 inputs, 15 outputs\n\n"
                        "pin  direction  level\n  0  output     high\n";
    for (int pin = 1; pin < 15; ++pin) {
        table += (pin < 10 ? "  " : " ") + std::to_string(pin) + "  output     low\n";
    }
    expectOutput({"info"}, table + " 15  input      low\n");
}

TEST_F(TestModeProgramTest, InfoSpeaksJson) {
    const Outcome outcome = run({"info", "--json"});
    const auto info = nlohmann::json::parse(outcome.output);
    EXPECT_EQ(info["backEnd"], "test");
    EXPECT_TRUE(info["firmware"].is_null());
    EXPECT_EQ(info["outputs"], 16);
    EXPECT_EQ(info["pins"].size(), 16U);
    EXPECT_EQ(info["pins"][5],
              nlohmann::json::parse(R"({"pin":5,"direction":"output","level":0})"));
}

TEST_F(TestModeProgramTest, RawPrintsTheAnswer) {
    expectOutput({"raw", "O00"}, "O0010O\n");
}

TEST_F(TestModeProgramTest, RawReportsAnErrorOfTheServer) {
    const Outcome outcome = run({"raw", "Z00"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors,
              "gpio-client: the server refused the command Z00: UNKNOWN COMMAND: Z00\n");
}

TEST_F(TestModeProgramTest, RawRefusesALineEnd) {
    EXPECT_EQ(run({"raw", "\n"}).status, 2);
    EXPECT_EQ(run({"raw", "W01R"}).status, 2);
}

TEST_F(TestModeProgramTest, RefusesPinsThatTheBackEndDoesNotHaveBeforeSettingAny) {
    const Outcome outcome = run({"set", "3=1", "16=1"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors,
              "gpio-client: pin 16 does not exist: the test back end has pins 0 to 15\n");
    expectOutput({"get", "3"}, "3=low\n");
}

TEST_F(TestModeProgramTest, PingCountsRequests) {
    const Outcome outcome = run({"ping", "--count=50", "--json"});
    const auto statistics = nlohmann::json::parse(outcome.output);
    EXPECT_EQ(statistics["requests"], 50);
    EXPECT_GT(statistics["requestsPerSecond"], 0);
    EXPECT_LE(statistics["microseconds"]["min"], statistics["microseconds"]["median"]);
    EXPECT_LE(statistics["microseconds"]["median"], statistics["microseconds"]["max"]);
}

TEST_F(TestModeProgramTest, MonitorPrintsEdgesInTheGivenForm) {
    const auto monitor = start({"monitor", "3", "--banner", "--num-events=2", "--poll=20ms",
                                "--format-line=%o %e %E %v %%"});
    ASSERT_TRUE(monitor->waitForOutput("\n"));
    run({"set", "3=1"});
    ASSERT_TRUE(monitor->waitForOutput("rising"));
    run({"set", "3=0"});
    EXPECT_EQ(monitor->waitForEnd(), 0);
    EXPECT_EQ(monitor->output(), "watching 1 pin of the test back end at " + address() +
                                     " by reading them every 20 ms: it sends no change notices\n"
                                     "3 1 rising 1 %\n3 2 falling 0 %\n");
}

TEST_F(TestModeProgramTest, MonitorPrintsOnlyTheEdgesAskedFor) {
    run({"set", "9=1"});
    const auto monitor = start(
        {"monitor", "--edges=falling", "--banner", "-n1", "--poll=20ms", "--format-line=%E %o"});
    ASSERT_TRUE(monitor->waitForOutput("\n"));
    run({"set", "8=1", "9=0"});
    EXPECT_EQ(monitor->waitForEnd(), 0);
    EXPECT_TRUE(monitor->output().ends_with("20 ms: it sends no change notices\nfalling 9\n"))
        << monitor->output();
}

TEST_F(TestModeProgramTest, MonitorPrintsTheInitialState) {
    run({"set", "2=1"});
    expectOutput({"monitor", "2", "3", "--initial-state", "--idle-timeout=50ms",
                  "--format-line=%o %E %e %v"},
                 "2 initial-high 0 1\n3 initial-low 0 0\n");
}

TEST_F(TestModeProgramTest, MonitorSpeaksJson) {
    const auto monitor = start({"monitor", "3", "--banner", "-n1", "--json"});
    ASSERT_TRUE(monitor->waitForOutput("\n"));
    run({"set", "3=1"});
    EXPECT_EQ(monitor->waitForEnd(), 0);
    const std::size_t second = monitor->output().find('\n') + 1;
    const auto banner = nlohmann::json::parse(monitor->output().substr(0, second));
    EXPECT_EQ(banner["event"], "banner");
    EXPECT_EQ(banner["notices"], false);
    const auto event = nlohmann::json::parse(monitor->output().substr(second));
    EXPECT_EQ(event["event"], "edge");
    EXPECT_EQ(event["pin"], 3);
    EXPECT_EQ(event["edge"], "rising");
    EXPECT_EQ(event["level"], 1);
}

TEST_F(TestModeProgramTest, MonitorEndsByTheSignalItGets) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const auto monitor = start({"monitor", "--banner"});
        ASSERT_TRUE(monitor->waitForOutput("\n"));
        monitor->sendSignal(signal);
        EXPECT_EQ(monitor->waitForEnd(), -signal);
    }
}

TEST_F(TestModeProgramTest, MonitorEndsWhenTheServerDoes) {
    const auto monitor = start({"monitor", "--banner"});
    ASSERT_TRUE(monitor->waitForOutput("\n"));
    server_.stop();
    EXPECT_EQ(monitor->waitForEnd(), 3);
    EXPECT_TRUE(monitor->error().starts_with("gpio-client: ")) << monitor->error();
}

TEST_F(TestModeProgramTest, MonitorReportsWhatChangedWhileTheServerWasAway) {
    run({"set", "3=1", "4=1"});
    const auto monitor =
        start({"monitor", "3", "4", "5", "--banner", "--reconnect", "--format-line=%E %o", "-n2"});
    ASSERT_TRUE(monitor->waitForOutput("\n"));
    server_.stop();
    ASSERT_TRUE(monitor->waitForError("trying to connect again"));
    server_.start();
    ASSERT_TRUE(monitor->waitForError("connected to " + address() + " again"));
    EXPECT_EQ(monitor->waitForEnd(), 0);
    EXPECT_TRUE(monitor->output().ends_with("\nfalling 3\nfalling 4\n")) << monitor->output();
}

TEST_F(TestModeProgramTest, WaitEndsAtOnceWhenTheLevelIsThere) {
    expectOutput({"wait", "3=0", "--timeout=1m"}, "3=low\n");
}

TEST_F(TestModeProgramTest, WaitEndsWhenTheLevelComes) {
    const auto wait = start({"wait", "3=1"});
    run({"set", "3=1"});
    EXPECT_EQ(wait->waitForEnd(), 0);
    EXPECT_EQ(wait->output(), "3=high\n");
}

TEST_F(TestModeProgramTest, WaitGivesUpAfterItsTime) {
    const Outcome outcome = run({"wait", "3=1", "--timeout=100ms"});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_EQ(outcome.errors, "gpio-client: 3=1 was not reached within 100 ms\n"
                              "  Try again, or wait longer with --timeout.\n");
}

TEST_F(TestModeProgramTest, TheHostMayStandInBrackets) {
    FakeServer server([](const FakePeer& peer) { peer.beTestBackEnd(); }, 0, true);
    expectOutput({"--host=[::1]", "--port=" + std::to_string(server.port()), "get", "3"},
                 "3=low\n");
}

TEST_F(TestModeProgramTest, SaysWhenTheOutputCannotBeWritten) {
    const auto program = startShell(address(), "$CLIENT get 3 >/dev/full");
    EXPECT_EQ(program->waitForEnd(), 1);
    EXPECT_EQ(program->error(), "gpio-client: cannot write the output: No space left on device\n");
}

namespace {

/// Answers the probe and then each command with the next of `answers`.
FakeServer::Script board(std::vector<std::string> answers) {
    return [answers = std::move(answers)](const FakePeer& peer) {
        peer.receive();
        peer.send("^INVALID COMMAND: I00^");
        for (const std::string& answer : answers) {
            peer.receive();
            peer.send(answer);
        }
        while (!peer.receive().empty()) {
        }
    };
}

} // namespace

TEST(ProgramTest, RefusesWhatCannotBeWithoutConnecting) {
    const std::string noPin = " is not a pin: use a decimal number, or hexadecimal with 0x";
    const std::string noDuration = "\"5h\" is not a duration: use for example 500ms, 2s, 1.5 or 1m";
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows{
        {{"get", ""}, "\"\"" + noPin},
        {{"get", "1x"}, "\"1x\"" + noPin},
        {{"get", "+1"}, "\"+1\"" + noPin},
        {{"get", "0x"}, "\"0x\"" + noPin},
        {{"toggle", "0x1g"}, "\"0x1g\"" + noPin},
        {{"monitor", "1.0"}, "\"1.0\"" + noPin},
        {{"direction", "x"}, "\"x\"" + noPin},
        {{"get", "29"},
         "pin 29 does not exist: the test back end has pins 0 to 15, the board pins 0 to 28"},
        {{"set", "3=2"}, "\"2\" is not a level: use 0, 1, low, high, off or on"},
        {{"wait", "3"}, "\"3\" is not of the form PIN=VALUE, such as 3=1"},
        {{"direction", "3", "up"}, "\"up\" is not a direction: use in or out"},
        {{"monitor", "--format-line=%x"},
         "the line format \"%x\" has an unknown field: use %o, %e, %E, %v, %S, %L and %%"},
        {{"--timeout=5h", "get", "3"}, noDuration},
        {{"monitor", "--idle-timeout=5h"}, noDuration},
        {{"monitor", "--poll=5h"}, noDuration},
        {{"ping", "--interval=5h"}, noDuration},
        {{"wait", "3=1", "--timeout=5h"}, noDuration},
        {{"wait", "3=1", "--poll=5h"}, noDuration},
        {{"ping", "-i0"}, "the duration \"0\" is not between 1 ms and 11 days"}};
    for (const auto& [arguments, message] : rows) {
        const Outcome outcome = runClient("127.0.0.1:1", arguments);
        EXPECT_EQ(outcome.status, 2) << message;
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors, "gpio-client: " + message + "\n");
    }
}

TEST(ProgramTest, ThePanelRefusesWhatOnlyLinesHave) {
    for (const char* other : {"3", "-n1", "--idle-timeout=1s", "--edges=rising", "--initial-state",
                              "--banner", "--format-line=%o", "--json"}) {
        const Outcome outcome = runClient("127.0.0.1:1", {"monitor", "--panel", other});
        EXPECT_EQ(outcome.status, 2) << other;
        EXPECT_NE(outcome.errors.find(" excludes "), std::string::npos) << outcome.errors;
    }
}

TEST(ProgramTest, AsksForAServer) {
    const Outcome none = runClient("", {"get", "3"});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.errors, "gpio-client: which server? Give --port=PORT (and --host=HOST), or set "
                           "GPIO_SERVER=host:port\n");
    const Outcome malformed = runClient("nonsense", {"get", "3"});
    EXPECT_EQ(malformed.status, 2);
    EXPECT_EQ(malformed.errors, "gpio-client: GPIO_SERVER: \"nonsense\" is not of the form "
                                "host:port or [ipv6]:port\n");
}

TEST(ProgramTest, OptionsPrecedeTheEnvironment) {
    FakeServer server([](const FakePeer& peer) { peer.beTestBackEnd(); });
    const Outcome outcome =
        runClient("127.0.0.1:1", {"--port=" + std::to_string(server.port()), "get", "3"});
    EXPECT_EQ(outcome.output, "3=low\n");
}

TEST(ProgramTest, UsageErrorsHaveStatusTwo) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                      {"no-such-command"},
                                                      {"get"},
                                                      {"--port=0", "info"},
                                                      {"monitor", "--edges=none"},
                                                      {"get", "3", "--no-such-option"}}) {
        EXPECT_EQ(runClient("127.0.0.1:1", arguments).status, 2);
    }
}

TEST(ProgramTest, HelpAndVersionHaveStatusZero) {
    EXPECT_EQ(runClient("", {"--version"}).output, "gpio-client " GPIO_CLIENT_VERSION "\n");
    const Outcome help = runClient("", {"monitor", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("--format-line"), std::string::npos);
}

TEST(ProgramTest, SaysWhatToDoWhenNobodyListens) {
    const support::ReservedPort port;
    const std::string server = "127.0.0.1:" + std::to_string(port.number());
    const Outcome outcome = runClient(server, {"get", "3"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.errors,
              "gpio-client: cannot connect to " + server +
                  ": connection refused\n  Start GpioServer there, or check --host and --port. "
                  "With a board it listens only while the board is plugged in.\n");
}

TEST(ProgramTest, HasStatusFourWhenTheServerIsSilent) {
    FakeServer server([](const FakePeer& peer) {
        while (!peer.receive().empty()) {
        }
    });
    const Outcome outcome = runClient(server.endpoint().toString(), {"--timeout=100ms", "info"});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_EQ(outcome.errors, "gpio-client: no complete answer to the command I00 within 100 ms\n"
                              "  Try again, or wait longer with --timeout.\n");
}

TEST(ProgramTest, TheTimeOutOfWaitLimitsConnectingAndEveryRequest) {
    const std::array<const char*, 4> answers{"^INVALID COMMAND: I00^", "LL\n",
                                             "Pffffffffffffe000P\n", "A00000000A\n"};
    for (std::size_t answered = 0; answered <= answers.size(); ++answered) {
        FakeServer server([&](const FakePeer& peer) {
            for (std::size_t i = 0; i < answered && !peer.receive().empty(); ++i) {
                peer.send(answers.at(i));
            }
            while (!peer.receive().empty()) {
            }
        });
        const Outcome outcome =
            runClient(server.endpoint().toString(),
                      {"--timeout=1m", "wait", "13=1", "--poll=20ms", "--timeout=200ms"});
        EXPECT_EQ(outcome.status, 4) << answered;
        EXPECT_EQ(outcome.errors, "gpio-client: 13=1 was not reached within 200 ms\n"
                                  "  Try again, or wait longer with --timeout.\n")
            << answered;
    }
}

TEST(ProgramTest, RawPrintsJsonOfACommandThatIsNoText) {
    FakeServer server(board({"R1R\n"}));
    const Outcome outcome = runClient(server.endpoint().toString(), {"--json", "raw", "R\xff"});
    EXPECT_EQ(outcome.output, "{\"command\":\"R\xef\xbf\xbd\",\"answer\":\"R1R\"}\n");
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
}

TEST(ProgramTest, HasStatusThreeWhenTheConnectionIsLost) {
    FakeServer server([](const FakePeer& peer) { peer.receive(); });
    const Outcome outcome = runClient(server.endpoint().toString(), {"get", "3"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.errors, "gpio-client: the server at " + server.endpoint().toString() +
                                  " closed the connection\n  The server hangs up when the board "
                                  "is unplugged; try again once it is back.\n");
}

TEST(ProgramTest, HasStatusOneForAFailureDigit) {
    FakeServer server(board({"W0W\n"}));
    const Outcome outcome = runClient(server.endpoint().toString(), {"set", "3=1"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "gpio-client: the server could not set pin 3; check that the board "
                              "is connected\n");
}

TEST(ProgramTest, HasStatusOneForAnotherProtocol) {
    FakeServer server([](const FakePeer& peer) {
        peer.send("220 ready\r\n");
        peer.receive();
    });
    EXPECT_EQ(runClient(server.endpoint().toString(), {"get", "3"}).status, 1);
}

TEST(ProgramTest, ExplainsWhatAPinOfTheBoardCannotDo) {
    FakeServer server(board({}));
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows{
        {{"set", "3=1", "13=1"},
         "pin 13 is an input of the board and cannot be set; the board's outputs are pins 0 to 12"},
        {{"direction", "13", "out"},
         "the directions of the board's pins are fixed: pins 0 to 12 are outputs, pins 13 to 28 "
         "are inputs"},
        {{"toggle", "9"},
         "the level of output pin 9 cannot be read back: the server remembers outputs 1 to 8 only; "
         "set the pin to be sure of its level"}};
    for (const auto& [arguments, message] : rows) {
        const Outcome outcome = runClient(server.endpoint().toString(), arguments);
        EXPECT_EQ(outcome.status, 2) << message;
        EXPECT_EQ(outcome.errors, "gpio-client: " + message + "\n");
    }
}

TEST(ProgramTest, TheInitialStateIsThatOfTheLastNotice) {
    FakeServer server([](const FakePeer& peer) {
        peer.receive();
        peer.send("^INVALID COMMAND: I00^");
        for (const char* answer : {"LL\n", "Pffffffffffffe000P\n"}) {
            peer.receive();
            peer.send(answer);
        }
        while (!peer.receive().empty()) {
            peer.send("U2000|00002000U\nA00000000A\n");
        }
    });
    const Outcome outcome =
        runClient(server.endpoint().toString(),
                  {"monitor", "13", "--initial-state", "--idle-timeout=20ms", "--format-line=%E"});
    EXPECT_EQ(outcome.output, "initial-high\n");
}
