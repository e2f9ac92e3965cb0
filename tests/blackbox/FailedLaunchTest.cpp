#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ServerProcess.h"

namespace {

/// The error lines of a process whose server cannot be built, which must end with status 0.
std::vector<std::string> errorsOf(const std::string& mode, const std::string& port) {
    support::ServerOptions options;
    options.executable = BROKEN_SERVER_EXECUTABLE;
    options.arguments = {"--port=" + port, mode};
    support::ServerProcess server(options);
    EXPECT_EQ(server.waitForEnd(), 0);
    return server.errorLines();
}

const std::string REPORT_LINE = "[Launcher] Something when wrong!";

} // namespace

TEST(FailedLaunch, IsReportedWithItsReasonOnASecondLine) {
    EXPECT_EQ(errorsOf("--test", "0"),
              (std::vector<std::string>{REPORT_LINE, "Exception: Broken"}));
}

TEST(FailedLaunch, EndsTheProcessAlthoughTheMonitorRuns) {
    EXPECT_EQ(errorsOf("--ftdi", "1"),
              (std::vector<std::string>{REPORT_LINE, "Exception: Broken"}));
}
