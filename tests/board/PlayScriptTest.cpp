#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/Client.h"
#include "support/LogLines.h"
#include "support/ReservedPort.h"
#include "support/ServerProcess.h"

namespace {

using support::Client;

/// What a command of the shell prints on standard output.
std::string outputOf(const std::string& command) {
    support::Process shell({.executable = "/bin/sh", .arguments = {"-c", command}});
    EXPECT_EQ(shell.waitForEnd(), 0) << command;
    return shell.output();
}

/// The script, started as a user would, and ended like that too.
class PlayScript : public testing::Test {
protected:
    explicit PlayScript(const std::vector<std::string>& arguments = {"--inputs", "00", "00"})
        : script_(optionsFor(arguments, port_.number())) {}
    ~PlayScript() override { end(); }

    static support::ServerOptions optionsFor(std::vector<std::string> arguments,
                                             std::uint16_t port) {
        support::ServerOptions options;
        options.executable = VIRTUAL_BOARD_SCRIPT;
        arguments.insert(arguments.end(), {"--", "--port=" + std::to_string(port)});
        options.arguments = std::move(arguments);
        options.environment = {"PRESET=" BUILD_PRESET};
        return options;
    }

    std::optional<int> end() {
        script_.sendSignal(SIGTERM);
        return script_.waitForEnd();
    }

    /// The lines that the script offers for another terminal, in its order.
    std::vector<std::string> offeredCommands() {
        std::vector<std::string> commands;
        for (const std::string& line : support::splitLines(script_.output())) {
            if (line.starts_with("  ") && line.find(" --control ") != std::string::npos) {
                commands.push_back(line);
            }
        }
        return commands;
    }

    support::ReservedPort port_;
    support::ServerProcess script_;
};

TEST_F(PlayScript, ServesABoardThatTheOfferedCommandsSteer) {
    ASSERT_TRUE(script_.waitForOutput("Launch was successful."));
    ASSERT_TRUE(script_.waitForOutput("Device is ready for actual use"));
    const std::vector<std::string> commands = offeredCommands();
    ASSERT_EQ(commands.size(), 4U) << script_.output();
    Client client(port_.number());
    EXPECT_EQ(client.request("W011"), "W1W");
    EXPECT_EQ(client.request("L000"), "LL");
    ASSERT_TRUE(script_.waitForOutput("Resume PinStateMonitor."));

    EXPECT_EQ(outputOf(commands[0]), "ok\n");
    EXPECT_EQ(client.receiveLine(), "U10002000|10002000U");
    EXPECT_EQ(outputOf(commands[1]), "ok 1000000000000 1\n");
    EXPECT_EQ(outputOf(commands[2]), "ok\n");
    EXPECT_TRUE(client.waitForEnd());
    EXPECT_EQ(outputOf(commands[3]), "ok\n");
    EXPECT_EQ(Client(port_.number()).request("I000"), "I0010I");
}

TEST_F(PlayScript, TakesEverythingAwayAtTheEnd) {
    ASSERT_TRUE(script_.waitForOutput("Launch was successful."));
    const std::string text = script_.output();
    const std::string option = "--control ";
    const auto from = text.find(option) + option.size();
    const std::filesystem::path directory = text.substr(from, text.find(' ', from) - from);
    ASSERT_TRUE(std::filesystem::exists(directory / "control"));
    EXPECT_EQ(end(), 128 + SIGTERM);
    EXPECT_FALSE(std::filesystem::exists(directory));
    EXPECT_THROW(Client(port_.number(), 0, std::chrono::milliseconds(1)), std::runtime_error);
}

#if WITH_FIRMWARE
class PlayScriptOnTheFirmware : public PlayScript {
protected:
    PlayScriptOnTheFirmware() : PlayScript({"--firmware"}) {}

    /// The simulator is what the script starts first.
    pid_t simulator() const {
        const std::string script = std::to_string(script_.pid());
        pid_t first = 0;
        std::ifstream("/proc/" + script + "/task/" + script + "/children") >> first;
        return first;
    }
};

// One test, since two of them at the same time would both build the firmware.
TEST_F(PlayScriptOnTheFirmware, ServesThePartThatIsSimulatedAndEndsWithIt) {
    ASSERT_TRUE(script_.waitForOutput("Launch was successful."));
    ASSERT_TRUE(script_.waitForOutput("Device is ready for actual use"));
    EXPECT_EQ(Client(port_.number()).request("V000"), "Vv1.0V");
    ASSERT_GT(simulator(), 0);
    ASSERT_EQ(kill(simulator(), SIGKILL), 0);
    EXPECT_EQ(script_.waitForEnd(), 1);
    // The server, which shares the stream, may write between the pieces of the line.
    EXPECT_TRUE(script_.waitForError("the firmware's process has ended"));

    support::ServerProcess again(optionsFor({"--firmware"}, port_.number()));
    ASSERT_TRUE(again.waitForOutput("Launch was successful."));
    again.sendSignal(SIGTERM);
    EXPECT_EQ(again.waitForEnd(), 128 + SIGTERM);
}
#endif

} // namespace
