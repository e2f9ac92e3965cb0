#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Client.h"
#include "support/LogLines.h"
#include "support/ReservedPort.h"
#include "support/ServerProcess.h"

using support::Client;
using support::ReservedPort;
using support::ServerOptions;
using support::ServerProcess;

namespace {

using Lines = std::vector<std::string>;

const std::string HELP_TEXT =
    "GpioServer version: v2.0.0\n"
    "Usage: GpioServer --port=[portNumber] [--debug]\n"
    "                         [--test] [--sleep=[ns]]\n"
    "\n"
    "--port=[portNumber]    The port number to listen on for incoming client connections.\n"
    "--sleep=[Ms]           The sleep time in microseconds used by the 'input pin change monitor "
    "thread'. \n"
    "                       The default sleep time is 10000 microseconds\n"
    "--debug                Prints out debug to the command line.\n"
    "--test                 Doesn't use the SUSI library, but starts the server in test mode.\n"
    "\n"
    "Report bugs to Zarvik\n";

ServerOptions with(std::vector<std::string> arguments) {
    ServerOptions options;
    options.arguments = std::move(arguments);
    return options;
}

/// What a process that ends by itself leaves behind.
struct Outcome {
    std::optional<int> status;
    std::string output;
    Lines errorLines;
};

Outcome outcomeOf(const std::vector<std::string>& arguments) {
    ServerProcess server(with(arguments));
    const std::optional<int> status = server.waitForEnd();
    return {status, server.output(), server.errorLines()};
}

struct Case {
    const char* name;
    Lines arguments;
};

std::string nameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

class RefusedPort : public testing::TestWithParam<Case> {};
class AskedForHelp : public testing::TestWithParam<Case> {};
class InvalidLaunch : public testing::TestWithParam<Case> {};

} // namespace

TEST_P(RefusedPort, IsReportedAboveTheHelp) {
    const Outcome outcome = outcomeOf(GetParam().arguments);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, HELP_TEXT);
    EXPECT_EQ(outcome.errorLines, Lines{"[Launcher] Please provide a valid port number."});
}

INSTANTIATE_TEST_SUITE_P(
    CommandLine, RefusedPort,
    testing::Values(Case{"NoArguments", {}}, Case{"NoPort", {"--test", "--debug"}},
                    Case{"MinusOne", {"--port=-1", "--test"}},
                    Case{"LastCounts", {"--port=5000", "--test", "--port=-1"}}),
    nameOf);

TEST(CommandLine, PortReportIsALogLineOnStandardError) {
    ServerProcess server(with({}));
    ASSERT_TRUE(server.waitForEnd());
    EXPECT_TRUE(support::startsWithTime(server.error())) << server.error();
}

TEST_P(AskedForHelp, PrintsNothingElse) {
    const Outcome outcome = outcomeOf(GetParam().arguments);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, HELP_TEXT);
    EXPECT_EQ(outcome.errorLines, Lines{});
}

INSTANTIATE_TEST_SUITE_P(
    CommandLine, AskedForHelp,
    testing::Values(Case{"Alone", {"--help"}}, Case{"WithABadPort", {"--help", "--port=abc"}},
                    Case{"InsteadOfServing", {"--port=0", "--test", "--help"}}),
    nameOf);

TEST_P(InvalidLaunch, EndsWithItsOwnStatus) {
    const Outcome outcome = outcomeOf(GetParam().arguments);
    EXPECT_EQ(outcome.status, 255);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errorLines, Lines{"[Launcher] Invalid launch"});
}

INSTANTIATE_TEST_SUITE_P(CommandLine, InvalidLaunch,
                         testing::Values(Case{"NoBackEnd", {"--port=5000"}},
                                         Case{"RestartAlone", {"--port=5000", "--restart"}},
                                         Case{"OptionsAreComparedWhole",
                                              {"--port=5000", "--tests", "--TEST", "test",
                                               "--test=1"}}),
                         nameOf);

TEST(CommandLine, TestModeLogsItsLaunchWithoutDebug) {
    ServerProcess server;
    server.port();
    ASSERT_TRUE(server.waitForOutput("Launch was successful.\n"));
    EXPECT_EQ(server.outputLines(),
              (Lines{"[Launcher] Launching in TEST mode.", "[GpioServer] Launching GPIO Server... ",
                     "[GpioServer] Starting to create ServerSocket",
                     "[GpioServer] Created ServerSocket on port 0.",
                     "[GpioServer] GPIO Server now listening for incoming connections.",
                     "[GpioServer] Launch was successful."}));
    EXPECT_EQ(server.error(), "");
}

TEST(CommandLine, TestModeWinsOverBoardMode) {
    const ReservedPort port;
    ServerProcess server(with({"--port=" + std::to_string(port.number()), "--test", "--ftdi"}));
    Client client(server.port());
    EXPECT_EQ(client.request("O00"), "O0010O");
    EXPECT_EQ(server.outputLines().front(), "[Launcher] Launching in TEST mode.");
}

TEST(CommandLine, PortIsALeadingNumberOfWhichTheLowSixteenBitsCount) {
    const ReservedPort port;
    const std::string number = std::to_string(port.number());
    const std::string beyond = std::to_string(port.number() + 65536);
    for (const auto& [given, logged] :
         {std::pair(number, number), {number + "x7", number}, {beyond, beyond}}) {
        ServerProcess server(with({"--test", "--port=" + given}));
        EXPECT_EQ(server.port(), port.number()) << given;
        EXPECT_TRUE(
            server.waitForOutput("[GpioServer] Created ServerSocket on port " + logged + ".\n"));
    }
}

TEST(CommandLine, PortWithoutDigitsIsZero) {
    ServerProcess server(with({"--port=abc", "--test"}));
    EXPECT_NE(server.port(), 0);
    EXPECT_TRUE(server.waitForOutput("Created ServerSocket on port 0.\n"));
}

TEST(CommandLine, UnknownArgumentsAreIgnoredSilently) {
    ServerProcess server(with({"--port=0", "--verbose", "--test", "nonsense", ""}));
    Client client(server.port());
    EXPECT_EQ(client.request("R00"), "R0R");
    EXPECT_EQ(server.error(), "");
}

TEST(CommandLine, DebugAddsTheOptionalLines) {
    ServerProcess server(with({"--port=0", "--test", "--sleep=500", "--debug", "--verbose"}));
    Client client(server.port());
    EXPECT_EQ(client.request("R00"), "R0R");
    EXPECT_TRUE(server.waitForOutput("[GpioConnectionHandler] Going to handle command [R00].\n"));
}

TEST(CommandLine, WithoutDebugTheOptionalLinesAreMissing) {
    ServerProcess server;
    Client client(server.port());
    EXPECT_EQ(client.request("R00"), "R0R");
    client.close();
    ASSERT_TRUE(server.waitForOutput("Freed memory of Connection"));
    EXPECT_EQ(server.output().find("[GpioConnectionHandler]"), std::string::npos);
    EXPECT_EQ(server.output().find("PINS: ["), std::string::npos);
}

TEST(CommandLine, PortInUseEndsWithTheReasonAndStatusZero) {
    ServerProcess first;
    const std::string port = std::to_string(first.port());
    ServerProcess second(with({"--port=" + port, "--test"}));
    ASSERT_EQ(second.waitForEnd(), 0);
    EXPECT_EQ(second.errorLines(),
              (Lines{"[Launcher] Something when wrong!",
                     "Exception: Failed to bind ServerSocket on port " + port}));
    EXPECT_EQ(second.outputLines().back(), "[GpioServer] Starting to create ServerSocket");
}

TEST(CommandLine, ASignalEndsTheServerWithoutAWord) {
    ServerProcess server;
    server.port();
    ASSERT_TRUE(server.waitForOutput("Launch was successful.\n"));
    const std::string before = server.output();
    server.sendSignal(SIGTERM);
    EXPECT_EQ(server.waitForEnd(), -SIGTERM);
    EXPECT_EQ(server.output(), before);
    EXPECT_EQ(server.error(), "");
}
