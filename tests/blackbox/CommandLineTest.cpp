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

/// A launch that ends by itself, and what it leaves behind.
struct Launch {
    const char* name;
    Lines arguments;
    int status;
    std::string output;
    Lines errorLines;
};

void PrintTo(const Launch& launch, std::ostream* stream) {
    *stream << launch.name;
}

Launch refusedPort(const char* name, Lines arguments) {
    return {name,
            std::move(arguments),
            0,
            HELP_TEXT,
            {"[Launcher] Please provide a valid port number."}};
}

Launch askedForHelp(const char* name, Lines arguments) {
    return {name, std::move(arguments), 0, HELP_TEXT, {}};
}

Launch withoutBackEnd(const char* name, Lines arguments) {
    return {name, std::move(arguments), 255, "", {"[Launcher] Invalid launch"}};
}

class LaunchThatEnds : public testing::TestWithParam<Launch> {};

} // namespace

TEST_P(LaunchThatEnds, TellsWhy) {
    ServerProcess server(with(GetParam().arguments));
    EXPECT_EQ(server.waitForEnd(), GetParam().status);
    EXPECT_EQ(server.output(), GetParam().output);
    EXPECT_EQ(server.errorLines(), GetParam().errorLines);
}

INSTANTIATE_TEST_SUITE_P(
    CommandLine, LaunchThatEnds,
    testing::Values(refusedPort("NoArguments", {}), refusedPort("NoPort", {"--test", "--debug"}),
                    refusedPort("PortMinusOne", {"--port=-1", "--test"}),
                    refusedPort("LastPortCounts", {"--port=5000", "--test", "--port=-1"}),
                    askedForHelp("HelpAlone", {"--help"}),
                    askedForHelp("HelpWithABadPort", {"--help", "--port=abc"}),
                    askedForHelp("HelpInsteadOfServing", {"--port=0", "--test", "--help"}),
                    withoutBackEnd("NoBackEnd", {"--port=5000"}),
                    withoutBackEnd("RestartAlone", {"--port=5000", "--restart"}),
                    withoutBackEnd("OptionsAreComparedWhole",
                                   {"--port=5000", "--tests", "--TEST", "test", "--test=1"})),
    [](const auto& test) { return test.param.name; });

TEST(CommandLine, PortReportIsALogLineOnStandardError) {
    ServerProcess server(with({}));
    ASSERT_TRUE(server.waitForEnd());
    EXPECT_TRUE(support::startsWithTime(server.error())) << server.error();
}

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
