#include <array>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include "Harness.h"
#include "support/Eventually.h"
#include "support/Scale.h"

namespace {

constexpr const char* LEAVE_FULL_SCREEN = "\x1b[?1049l";

/// gpio-client monitor --panel on a terminal of its own.
class PanelTest : public testing::Test {
protected:
    void SetUp() override {
        winsize size{24, 80, 0, 0};
        ASSERT_EQ(openpty(&terminal_, &slave_, nullptr, nullptr, &size), 0);
        ASSERT_EQ(tcgetattr(slave_, &before_), 0);
        start();
        ASSERT_TRUE(waitForText("q quits"));
    }

    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(slave_);
        close(terminal_);
    }

    void start() {
        // A name, so that the panel is asked whether to end before it is connected.
        const std::string server = "GPIO_SERVER=localhost:" + std::to_string(server_.port());
        std::vector<const char*> arguments = launcher_;
        arguments.insert(arguments.end(),
                         {GPIO_CLIENT_PATH, "monitor", "--panel", extraArgument_, nullptr});
        std::array<const char*, 3> environment{server.c_str(), "TERM=xterm", nullptr};
        pid_ = fork();
        if (pid_ == 0) {
            const rlimit noCoreFile{0, 0};
            setrlimit(RLIMIT_CORE, &noCoreFile);
            login_tty(slave_);
            execve(arguments.front(), const_cast<char**>(arguments.data()),
                   const_cast<char**>(environment.data()));
            _exit(127);
        }
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
    int waitForEnd() {
        int status = 0;
        const bool ended = support::eventually([&] {
            readScreen(20);
            return waitpid(pid_, &status, WNOHANG) != 0;
        });
        if (!ended) {
            return -SIGKILL;
        }
        pid_ = -1;
        readScreen(0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    void expectTerminalRestored() {
        termios after{};
        ASSERT_EQ(tcgetattr(slave_, &after), 0);
        EXPECT_EQ(after.c_lflag, before_.c_lflag);
        EXPECT_EQ(after.c_iflag, before_.c_iflag);
        EXPECT_EQ(after.c_oflag, before_.c_oflag);
        EXPECT_NE(screen_.find(LEAVE_FULL_SCREEN), std::string::npos);
    }

    void resize(unsigned short rows, unsigned short columns) const {
        const winsize size{rows, columns, 0, 0};
        ioctl(slave_, TIOCSWINSZ, &size);
        kill(pid_, SIGWINCH);
    }

    ServerProcess server_{"--test"};
    std::vector<const char*> launcher_;
    const char* extraArgument_ = nullptr;
    int terminal_ = -1;
    int slave_ = -1;
    pid_t pid_ = -1;
    termios before_{};
    std::string screen_;
};

class ReconnectingPanelTest : public PanelTest {
protected:
    ReconnectingPanelTest() { extraArgument_ = "--reconnect"; }
};

#ifdef VALGRIND_PATH
class CheckedPanelTest : public PanelTest {
protected:
    CheckedPanelTest() { launcher_ = {VALGRIND_PATH, "--quiet", "--error-exitcode=99"}; }
};
#endif

class PanelSignalTest : public PanelTest, public testing::WithParamInterface<int> {};

} // namespace

TEST_F(PanelTest, ShowsAPinThatChanges) {
    runClient(server_.address(), {"set", "7=1"});
    EXPECT_TRUE(waitForText("pin 7 rising"));
}

TEST_F(PanelTest, FitsThePinsIntoANewSize) {
    // On its way to the next row the cursor is moved by an escape or back to the first column.
    EXPECT_TRUE(waitForText("6 [ ]     7 [ ]\x1b"));
    resize(40, 50);
    EXPECT_TRUE(waitForText(" 10 [ ]    11 [ ]    12 [ ]    13 [ ]    14 [ ]\r"));
}

TEST_F(PanelTest, DrawsAgainInANewSizeWhileTheServerIsSilent) {
    server_.freeze();
    screen_.clear();
    resize(40, 50);
    EXPECT_TRUE(waitForText("Outputs"));
}

TEST_F(PanelTest, QuitsWhileTheServerIsSilent) {
    server_.freeze();
    ASSERT_EQ(write(terminal_, "q", 1), 1);
    EXPECT_EQ(waitForEnd(), 0);
    expectTerminalRestored();
}

TEST_F(ReconnectingPanelTest, ShowsLossAndReturnOfTheServer) {
    server_.stop();
    ASSERT_TRUE(waitForText("not connected: "));
    server_.start();
    runClient(server_.address(), {"set", "7=1"});
    EXPECT_TRUE(waitForText("pin 7 rising"));
}

#ifdef VALGRIND_PATH
TEST_F(CheckedPanelTest, ReadsNothingThatIsNotThereYet) {
    ASSERT_EQ(write(terminal_, "q", 1), 1);
    EXPECT_EQ(waitForEnd(), 0) << screen_;
}
#endif

TEST_P(PanelSignalTest, RestoresTheTerminal) {
    kill(pid_, GetParam());
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

INSTANTIATE_TEST_SUITE_P(All, PanelSignalTest, testing::ValuesIn(signalsToTry()),
                         [](const auto& test) { return std::string(sigabbrev_np(test.param)); });

TEST_F(PanelTest, RestoresTheTerminalAfterAnInterrupt) {
    ASSERT_EQ(write(terminal_, "\x03", 1), 1);
    EXPECT_EQ(waitForEnd(), -SIGINT);
    expectTerminalRestored();
}

TEST_F(PanelTest, RestoresTheTerminalAfterASecondSignal) {
    server_.freeze();
    kill(pid_, SIGTERM);
    kill(pid_, SIGINT);
    EXPECT_LT(waitForEnd(), 0);
    expectTerminalRestored();
}

TEST_F(PanelTest, RestoresTheTerminalWhenTheServerIsLost) {
    server_.stop();
    EXPECT_EQ(waitForEnd(), 3);
    expectTerminalRestored();
    EXPECT_NE(screen_.find("gpio-client: "), std::string::npos);
}
