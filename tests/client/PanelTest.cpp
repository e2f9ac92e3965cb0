#include <array>
#include <csignal>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

#include "Harness.h"
#include "support/Eventually.h"
#include "support/Scale.h"

namespace {

constexpr const char* LEAVE_FULL_SCREEN = "\x1b[?1049l";

/// gpio-client monitor --panel on a terminal of its own.
class Panel : public testing::Test {
protected:
    void SetUp() override {
        winsize size{24, 80, 0, 0};
        ASSERT_EQ(openpty(&terminal_, &slave_, nullptr, nullptr, &size), 0);
        ASSERT_EQ(tcgetattr(slave_, &before_), 0);
        start();
        ASSERT_TRUE(waitForText("q quits"));
    }

    void TearDown() override {
        panel_.reset();
        close(slave_);
        close(terminal_);
    }

    /// Makes the terminal the panel's own, as a shell does.
    void start() {
        support::ProcessOptions options;
        options.executable = "/usr/bin/setsid";
        options.arguments = {"--ctty"};
        options.arguments.insert(options.arguments.end(), launcher_.begin(), launcher_.end());
        options.arguments.insert(options.arguments.end(), {GPIO_CLIENT_PATH, "monitor", "--panel"});
        if (reconnects_) {
            options.arguments.emplace_back("--reconnect");
        }
        // A name, so that the panel is asked whether to end before it is connected.
        options.environment = {"GPIO_SERVER=localhost:" + std::to_string(server_.port()),
                               "TERM=xterm", "LC_ALL=C"};
        options.limits = {{RLIMIT_CORE, 0}};
        options.input = options.output = options.error = support::Stream::on(slave_);
        panel_.emplace(options);
    }

    bool waitForText(const std::string& text) {
        return support::eventually([&] {
            readScreen(20);
            return screen_.find(text) != std::string::npos;
        });
    }

    void readScreen(int milliseconds) {
        pollfd entry{terminal_, POLLIN, 0};
        std::array<char, 4096> buffer{};
        if (poll(&entry, 1, milliseconds) > 0) {
            const ssize_t size = read(terminal_, buffer.data(), buffer.size());
            screen_.append(buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
        }
    }

    /// The exit status, or minus the signal.
    std::optional<int> waitForEnd() {
        support::eventually([&] {
            readScreen(20);
            return !panel_->isRunning();
        });
        readScreen(0);
        return panel_->waitForEnd(std::chrono::milliseconds(0));
    }

    void expectTerminalRestored() {
        termios after{};
        ASSERT_EQ(tcgetattr(slave_, &after), 0);
        EXPECT_EQ(after.c_lflag, before_.c_lflag);
        EXPECT_EQ(after.c_iflag, before_.c_iflag);
        EXPECT_EQ(after.c_oflag, before_.c_oflag);
        EXPECT_NE(screen_.find(LEAVE_FULL_SCREEN), std::string::npos);
    }

    void resize(unsigned short rows, unsigned short columns) {
        const winsize size{rows, columns, 0, 0};
        ioctl(slave_, TIOCSWINSZ, &size);
        panel_->sendSignal(SIGWINCH);
    }

    RestartableServer server_{"--test"};
    std::vector<std::string> launcher_;
    bool reconnects_ = false;
    int terminal_ = -1;
    int slave_ = -1;
    std::optional<support::Process> panel_;
    termios before_{};
    std::string screen_;
};

class ReconnectingPanel : public Panel {
protected:
    ReconnectingPanel() { reconnects_ = true; }
};

#ifdef VALGRIND_PATH
class CheckedPanel : public Panel {
protected:
    CheckedPanel() { launcher_ = {VALGRIND_PATH, "--quiet", "--error-exitcode=99"}; }
};
#endif

class PanelSignal : public Panel, public testing::WithParamInterface<int> {};

} // namespace

TEST_F(Panel, ShowsAPinThatChanges) {
    runClient(server_.address(), {"set", "7=1"});
    EXPECT_TRUE(waitForText("pin 7 rising"));
}

TEST_F(Panel, FitsThePinsIntoANewSize) {
    // On its way to the next row the cursor is moved by an escape or back to the first column.
    EXPECT_TRUE(waitForText("6 [ ]     7 [ ]\x1b"));
    resize(40, 50);
    EXPECT_TRUE(waitForText(" 10 [ ]    11 [ ]    12 [ ]    13 [ ]    14 [ ]\r"));
}

TEST_F(Panel, DrawsAgainInANewSizeWhileTheServerIsSilent) {
    server_.freeze();
    screen_.clear();
    resize(40, 50);
    EXPECT_TRUE(waitForText("Outputs"));
}

TEST_F(Panel, QuitsWhileTheServerIsSilent) {
    server_.freeze();
    ASSERT_EQ(write(terminal_, "q", 1), 1);
    EXPECT_EQ(waitForEnd(), 0);
    expectTerminalRestored();
}

TEST_F(ReconnectingPanel, ShowsLossAndReturnOfTheServer) {
    server_.stop();
    ASSERT_TRUE(waitForText("not connected: "));
    server_.start();
    runClient(server_.address(), {"set", "7=1"});
    EXPECT_TRUE(waitForText("pin 7 rising"));
}

#ifdef VALGRIND_PATH
TEST_F(CheckedPanel, ReadsNothingThatIsNotThereYet) {
    ASSERT_EQ(write(terminal_, "q", 1), 1);
    EXPECT_EQ(waitForEnd(), 0) << screen_;
}
#endif

TEST_P(PanelSignal, RestoresTheTerminal) {
    panel_->sendSignal(GetParam());
    EXPECT_EQ(waitForEnd(), -GetParam());
    expectTerminalRestored();
}

/// The thread sanitizer takes an abort for the program's own and runs the handler at once, also in
/// the midst of its run-time, whose locks the handler's calls then wait for without end.
std::vector<int> signalsToTry() {
    std::vector<int> signals{SIGTERM, SIGHUP, SIGQUIT};
    if (!support::UNDER_THREAD_SANITIZER) {
        signals.push_back(SIGABRT);
    }
    return signals;
}

INSTANTIATE_TEST_SUITE_P(All, PanelSignal, testing::ValuesIn(signalsToTry()),
                         [](const auto& test) { return std::string(sigabbrev_np(test.param)); });

TEST_F(Panel, RestoresTheTerminalAfterAnInterrupt) {
    ASSERT_EQ(write(terminal_, "\x03", 1), 1);
    EXPECT_EQ(waitForEnd(), -SIGINT);
    expectTerminalRestored();
}

TEST_F(Panel, RestoresTheTerminalAfterASecondSignal) {
    server_.freeze();
    panel_->sendSignal(SIGTERM);
    panel_->sendSignal(SIGINT);
    EXPECT_LT(waitForEnd().value_or(0), 0);
    expectTerminalRestored();
}

TEST_F(Panel, RestoresTheTerminalWhenTheServerIsLost) {
    server_.stop();
    EXPECT_EQ(waitForEnd(), 3);
    expectTerminalRestored();
    EXPECT_NE(screen_.find("gpio-client: "), std::string::npos);
}
