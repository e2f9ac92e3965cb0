#include <csignal>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Harness.h"

namespace {

using support::answering;
using support::BOARD_PROBE_ANSWER;
using support::FakePeer;
using support::FakeServer;

/// Every test has a server in test mode of its own.
class ProgramInTestMode : public ProgramOnServer {};

Outcome failure(int status, const std::string& message) {
    return {status, "", "gpio-client: " + message + "\n"};
}

} // namespace

TEST_F(ProgramInTestMode, SetsSilentlyAndGetsWhatWasSet) {
    expectOutput({"set", "3=1", "4=high", "0x5=on", "4=0"}, "");
    expectOutput({"get", "3", "4", "5"}, "3=high 4=low 5=high\n");
    expectOutput({"--numeric", "get", "3", "4", "5"}, "1 0 1\n");
    expectOutput({"get", "3", "4", "--json"},
                 "[{\"pin\":3,\"level\":1},{\"pin\":4,\"level\":0}]\n");
}

TEST_F(ProgramInTestMode, TogglePrintsTheNewLevels) {
    expectOutput({"toggle", "7", "8"}, "7=high 8=high\n");
    expectOutput({"toggle", "7"}, "7=low\n");
    expectOutput({"toggle", "7", "--quiet"}, "");
    expectOutput({"get", "7"}, "7=high\n");
}

TEST_F(ProgramInTestMode, ShowsAndChangesDirections) {
    expectOutput({"direction", "3"}, "3=output\n");
    expectOutput({"direction", "3", "in"}, "");
    expectOutput({"direction", "3"}, "3=input\n");
    expectOutput({"direction", "3", "--numeric"}, "1\n");
    expectOutput({"direction", "3", "--json"}, "{\"pin\":3,\"direction\":\"input\"}\n");
}

TEST_F(ProgramInTestMode, InfoShowsATableOfAllPins) {
    run({"set", "0=1"});
    run({"direction", "15", "in"});
    std::string table = "server    " + server_.address() +
                        "\nback end  test\nfirmware  -\npins      1 inputs, 15 outputs\n\n"
                        "pin  direction  level\n  0  output     high\n";
    for (int pin = 1; pin < 15; ++pin) {
        table += (pin < 10 ? "  " : " ") + std::to_string(pin) + "  output     low\n";
    }
    expectOutput({"info"}, table + " 15  input      low\n");
}

TEST_F(ProgramInTestMode, InfoSpeaksJson) {
    const Outcome outcome = run({"info", "--json"});
    const auto info = nlohmann::json::parse(outcome.output);
    EXPECT_EQ(info["backEnd"], "test");
    EXPECT_TRUE(info["firmware"].is_null());
    EXPECT_EQ(info["outputs"], 16);
    EXPECT_EQ(info["pins"].size(), 16U);
    EXPECT_EQ(info["pins"][5],
              nlohmann::json::parse(R"({"pin":5,"direction":"output","level":0})"));
}

TEST_F(ProgramInTestMode, RawPrintsTheAnswer) {
    expectOutput({"raw", "O00"}, "O0010O\n");
}

TEST_F(ProgramInTestMode, RawReportsAnErrorOfTheServer) {
    EXPECT_EQ(run({"raw", "Z00"}),
              failure(1, "the server refused the command Z00: UNKNOWN COMMAND: Z00"));
}

TEST_F(ProgramInTestMode, RawRefusesALineEnd) {
    EXPECT_EQ(run({"raw", "\n"}).status, 2);
    EXPECT_EQ(run({"raw", "W01R"}).status, 2);
}

TEST_F(ProgramInTestMode, RefusesPinsThatTheBackEndDoesNotHaveBeforeSettingAny) {
    EXPECT_EQ(run({"set", "3=1", "16=1"}),
              failure(2, "pin 16 does not exist: the test back end has pins 0 to 15"));
    expectOutput({"get", "3"}, "3=low\n");
}

TEST_F(ProgramInTestMode, PingCountsRequests) {
    const Outcome outcome = run({"ping", "--count=50", "--json"});
    const auto statistics = nlohmann::json::parse(outcome.output);
    EXPECT_EQ(statistics["requests"], 50);
    EXPECT_GT(statistics["requestsPerSecond"], 0);
    EXPECT_LE(statistics["microseconds"]["min"], statistics["microseconds"]["median"]);
    EXPECT_LE(statistics["microseconds"]["median"], statistics["microseconds"]["max"]);
}

TEST_F(ProgramInTestMode, MonitorPrintsEdgesInTheGivenForm) {
    const auto monitor =
        startMonitor({"3", "--num-events=2", "--poll=20ms", "--format-line=%o %e %E %v %%"});
    run({"set", "3=1"});
    ASSERT_TRUE(monitor->waitForOutput("rising"));
    run({"set", "3=0"});
    EXPECT_EQ(monitor->waitForEnd(), 0);
    EXPECT_EQ(monitor->output(), "watching 1 pin of the test back end at " + server_.address() +
                                     " by reading them every 20 ms: it sends no change notices\n"
                                     "3 1 rising 1 %\n3 2 falling 0 %\n");
}

TEST_F(ProgramInTestMode, MonitorPrintsOnlyTheEdgesAskedFor) {
    run({"set", "9=1"});
    const auto monitor =
        startMonitor({"--edges=falling", "-n1", "--poll=20ms", "--format-line=%E %o"});
    run({"set", "8=1", "9=0"});
    EXPECT_EQ(monitor->waitForEnd(), 0);
    EXPECT_TRUE(monitor->output().ends_with("20 ms: it sends no change notices\nfalling 9\n"))
        << monitor->output();
}

TEST_F(ProgramInTestMode, MonitorPrintsTheInitialState) {
    run({"set", "2=1"});
    expectOutput({"monitor", "2", "3", "--initial-state", "--idle-timeout=50ms",
                  "--format-line=%o %E %e %v"},
                 "2 initial-high 0 1\n3 initial-low 0 0\n");
}

TEST_F(ProgramInTestMode, MonitorSpeaksJson) {
    const auto monitor = startMonitor({"3", "-n1", "--json"});
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

TEST_F(ProgramInTestMode, MonitorEndsByTheSignalItGets) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const auto monitor = startMonitor();
        monitor->sendSignal(signal);
        EXPECT_EQ(monitor->waitForEnd(), -signal);
    }
}

TEST_F(ProgramInTestMode, MonitorEndsWhenTheServerDoes) {
    const auto monitor = startMonitor();
    server_.stop();
    EXPECT_EQ(monitor->waitForEnd(), 3);
    EXPECT_TRUE(monitor->error().starts_with("gpio-client: ")) << monitor->error();
}

TEST_F(ProgramInTestMode, MonitorReportsWhatChangedWhileTheServerWasAway) {
    run({"set", "3=1", "4=1"});
    const auto monitor = startMonitor({"3", "4", "5", "--reconnect", "--format-line=%E %o", "-n2"});
    server_.stop();
    ASSERT_TRUE(monitor->waitForError("trying to connect again"));
    server_.start();
    ASSERT_TRUE(monitor->waitForError("connected to " + server_.address() + " again"));
    EXPECT_EQ(monitor->waitForEnd(), 0);
    EXPECT_TRUE(monitor->output().ends_with("\nfalling 3\nfalling 4\n")) << monitor->output();
}

TEST_F(ProgramInTestMode, WaitEndsAtOnceWhenTheLevelIsThere) {
    expectOutput({"wait", "3=0", "--timeout=1m"}, "3=low\n");
}

TEST_F(ProgramInTestMode, WaitEndsWhenTheLevelComes) {
    const auto wait = start({"wait", "3=1"});
    run({"set", "3=1"});
    EXPECT_EQ(wait->waitForEnd(), 0);
    EXPECT_EQ(wait->output(), "3=high\n");
}

TEST_F(ProgramInTestMode, WaitGivesUpAfterItsTime) {
    EXPECT_EQ(run({"wait", "3=1", "--timeout=100ms"}),
              failure(4, "3=1 was not reached within 100 ms\n"
                         "  Try again, or wait longer with --timeout."));
}

TEST_F(ProgramInTestMode, TheHostMayStandInBrackets) {
    const FakeServer server(&FakePeer::beTestBackEnd, 0, true);
    expectOutput({"--host=[::1]", "--port=" + std::to_string(server.port()), "get", "3"},
                 "3=low\n");
}

TEST_F(ProgramInTestMode, SaysWhenTheOutputCannotBeWritten) {
    const auto program = startShell(server_.address(), "$CLIENT get 3 >/dev/full");
    EXPECT_EQ(program->waitForEnd(), 1);
    EXPECT_EQ(program->error(), "gpio-client: cannot write the output: No space left on device\n");
}

TEST(ClientProgram, RefusesWhatCannotBeWithoutConnecting) {
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
        EXPECT_EQ(runClient("127.0.0.1:1", arguments), failure(2, message));
    }
}

TEST(ClientProgram, ThePanelRefusesWhatOnlyLinesHave) {
    for (const char* other : {"3", "-n1", "--idle-timeout=1s", "--edges=rising", "--initial-state",
                              "--banner", "--format-line=%o", "--json"}) {
        const Outcome outcome = runClient("127.0.0.1:1", {"monitor", "--panel", other});
        EXPECT_EQ(outcome.status, 2) << other;
        EXPECT_NE(outcome.errors.find(" excludes "), std::string::npos) << outcome.errors;
    }
}

TEST(ClientProgram, AsksForAServer) {
    EXPECT_EQ(runClient("", {"get", "3"}),
              failure(2, "which server? Give --port=PORT (and --host=HOST), or set "
                         "GPIO_SERVER=host:port"));
    EXPECT_EQ(runClient("nonsense", {"get", "3"}),
              failure(2, "GPIO_SERVER: \"nonsense\" is not of the form host:port or [ipv6]:port"));
}

TEST(ClientProgram, OptionsPrecedeTheEnvironment) {
    const FakeServer server(&FakePeer::beTestBackEnd);
    const Outcome outcome =
        runClient("127.0.0.1:1", {"--port=" + std::to_string(server.port()), "get", "3"});
    EXPECT_EQ(outcome.output, "3=low\n");
}

TEST(ClientProgram, UsageErrorsHaveStatusTwo) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                      {"no-such-command"},
                                                      {"get"},
                                                      {"--port=0", "info"},
                                                      {"monitor", "--edges=none"},
                                                      {"get", "3", "--no-such-option"}}) {
        EXPECT_EQ(runClient("127.0.0.1:1", arguments).status, 2);
    }
}

TEST(ClientProgram, HelpAndVersionHaveStatusZero) {
    EXPECT_EQ(runClient("", {"--version"}).output, "gpio-client " GPIO_CLIENT_VERSION "\n");
    const Outcome help = runClient("", {"monitor", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("--format-line"), std::string::npos);
}

TEST(ClientProgram, SaysWhatToDoWhenNobodyListens) {
    const support::ReservedPort port;
    const std::string server = "127.0.0.1:" + std::to_string(port.number());
    EXPECT_EQ(
        runClient(server, {"get", "3"}),
        failure(3, "cannot connect to " + server +
                       ": connection refused\n  Start GpioServer there, or check --host and "
                       "--port. With a board it listens only while the board is plugged in."));
}

TEST(ClientProgram, HasStatusFourWhenTheServerIsSilent) {
    EXPECT_EQ(runClient(&FakePeer::beSilent, {"--timeout=100ms", "info"}),
              failure(4, "no complete answer to the command I00 within 100 ms\n"
                         "  Try again, or wait longer with --timeout."));
}

TEST(ClientProgram, TheTimeOutOfWaitLimitsConnectingAndEveryRequest) {
    std::vector<std::string> answers{BOARD_PROBE_ANSWER, "LL\n", "Pffffffffffffe000P\n",
                                     "A00000000A\n"};
    for (const std::size_t answered : {4U, 3U, 2U, 1U, 0U}) {
        answers.resize(answered);
        EXPECT_EQ(runClient(answering(answers),
                            {"--timeout=1m", "wait", "13=1", "--poll=20ms", "--timeout=200ms"}),
                  failure(4, "13=1 was not reached within 200 ms\n"
                             "  Try again, or wait longer with --timeout."))
            << answered;
    }
}

TEST(ClientProgram, RawPrintsJsonOfACommandThatIsNoText) {
    EXPECT_EQ(runClient(answering({BOARD_PROBE_ANSWER, "R1R\n"}), {"--json", "raw", "R\xff"}),
              (Outcome{0, "{\"command\":\"R\xef\xbf\xbd\",\"answer\":\"R1R\"}\n", ""}));
}

TEST(ClientProgram, HasStatusThreeWhenTheConnectionIsLost) {
    const FakeServer server(&FakePeer::receive);
    const std::string address = server.endpoint().toString();
    EXPECT_EQ(runClient(address, {"get", "3"}),
              failure(3, "the server at " + address +
                             " closed the connection\n  The server hangs up when the board is "
                             "unplugged; try again once it is back."));
}

TEST(ClientProgram, HasStatusOneForAFailureDigit) {
    EXPECT_EQ(runClient(answering({BOARD_PROBE_ANSWER, "W0W\n"}), {"set", "3=1"}),
              failure(1, "the server could not set pin 3; check that the board is connected"));
}

TEST(ClientProgram, HasStatusOneForAnotherProtocol) {
    const auto greet = [](const FakePeer& peer) {
        peer.send("220 ready\r\n");
        peer.receive();
    };
    EXPECT_EQ(runClient(greet, {"get", "3"}),
              failure(1, "the server does not speak the expected protocol: unexpected "
                         "\"220 ready?\"\n  Check that --host and --port lead to a GpioServer."));
}

TEST(ClientProgram, ExplainsWhatAPinOfTheBoardCannotDo) {
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
        EXPECT_EQ(runClient(answering({BOARD_PROBE_ANSWER}), arguments), failure(2, message));
    }
}

TEST(ClientProgram, TheInitialStateIsThatOfTheLastNotice) {
    const auto notify = [](const FakePeer& peer) {
        peer.answer({BOARD_PROBE_ANSWER, "LL\n", "Pffffffffffffe000P\n"});
        while (!peer.receive().empty()) {
            peer.send("U2000|00002000U\nA00000000A\n");
        }
    };
    const Outcome outcome = runClient(
        notify, {"monitor", "13", "--initial-state", "--idle-timeout=20ms", "--format-line=%E"});
    EXPECT_EQ(outcome.output, "initial-high\n");
}
