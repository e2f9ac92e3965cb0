#include "Launcher.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/Problem.h"
#include "support/ScopedDebug.h"

using support::LogCapture;
using support::readCommandLine;

namespace {

using Lines = std::vector<std::string>;

// Taken before main(), so before any command line was read.
const bool DEBUG_AT_FIRST = Launcher::isDebugEnabled();
const bool HELP_AT_FIRST = Launcher::isHelpEnabled();
const long SLEEP_AT_FIRST = Launcher::getSleepNanos();

const std::string MISSING_PORT = "Please provide a valid port number.";
const std::string ACCEPTED = "nothing was thrown";

std::string refusalOf(const std::vector<std::string>& arguments) {
    return support::problemOf<LauncherException>([&] { readCommandLine(arguments); });
}

class LauncherSettings : public testing::Test {
protected:
    // The other tests count on the settings of a command line without options.
    ~LauncherSettings() override { readCommandLine({"--port=0"}); }
};

} // namespace

TEST_F(LauncherSettings, AreZeroBeforeTheCommandLineIsRead) {
    EXPECT_FALSE(DEBUG_AT_FIRST);
    EXPECT_FALSE(HELP_AT_FIRST);
    EXPECT_EQ(SLEEP_AT_FIRST, 0);
}

TEST_F(LauncherSettings, HaveDefaultsWithoutOptions) {
    EXPECT_EQ(refusalOf({}), MISSING_PORT);
    EXPECT_EQ(Launcher::getSleepNanos(), 10000);
    EXPECT_FALSE(Launcher::isDebugEnabled());
    EXPECT_FALSE(Launcher::isHelpEnabled());
}

TEST_F(LauncherSettings, PortWithoutOptionsIsTheOneThatIsRefused) {
    EXPECT_EQ(refusalOf({}), MISSING_PORT);
    EXPECT_EQ(refusalOf({"--port=-1"}), MISSING_PORT);
    EXPECT_EQ(refusalOf({"--port=-2"}), ACCEPTED);
    EXPECT_EQ(refusalOf({"--port=0"}), ACCEPTED);
}

TEST_F(LauncherSettings, NumbersBeyondThirtyTwoBitsKeepTheirLowOnes) {
    readCommandLine({"--port=0", "--sleep=4294967796"});
    EXPECT_EQ(Launcher::getSleepNanos(), 500);
    EXPECT_EQ(refusalOf({"--port=4294967295"}), MISSING_PORT);
}

TEST_F(LauncherSettings, SleepIsTakenAsItIs) {
    readCommandLine({"--port=0", "--sleep=500"});
    EXPECT_EQ(Launcher::getSleepNanos(), 500);
    readCommandLine({"--port=0", "--sleep=-7"});
    EXPECT_EQ(Launcher::getSleepNanos(), -7);
    readCommandLine({"--port=0", "--sleep=soon"});
    EXPECT_EQ(Launcher::getSleepNanos(), 0);
    readCommandLine({"--port=0", "--sleep=1", "--sleep=22ms"});
    EXPECT_EQ(Launcher::getSleepNanos(), 22);
}

TEST_F(LauncherSettings, AreResetByTheNextCommandLine) {
    readCommandLine({"--debug", "--port=0", "--sleep=5"});
    EXPECT_TRUE(Launcher::isDebugEnabled());
    readCommandLine({"--port=0"});
    EXPECT_FALSE(Launcher::isDebugEnabled());
    EXPECT_EQ(Launcher::getSleepNanos(), 10000);
}

TEST_F(LauncherSettings, HelpNeedsNoPort) {
    const LogCapture capture;
    EXPECT_EQ(refusalOf({"--help"}), ACCEPTED);
    EXPECT_TRUE(Launcher::isHelpEnabled());
    EXPECT_EQ(capture.outputLines().front(), "GpioServer version: v2.0.0");
    EXPECT_EQ(capture.error(), "");
}

TEST_F(LauncherSettings, RefusalPrintsNothing) {
    const LogCapture capture;
    EXPECT_EQ(refusalOf({"--debug"}), MISSING_PORT);
    EXPECT_EQ(capture.output() + capture.error(), "");
}
