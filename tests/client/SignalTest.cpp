#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "Harness.h"
#include "support/Descriptor.h"
#include "support/Eventually.h"

namespace {

using std::chrono::steady_clock;
using support::FakePeer;
using support::FakeServer;

/// Less than any of the limits that would end a client which ignores its signals.
constexpr std::chrono::seconds SOON{20};

constexpr const char* NOTICES = "U2000|00002000U\nU2000|00000000U\n";

/// True when the client ends its side and then takes whatever is still sent to it.
bool isHungUpOnInOrder(const FakePeer& peer) {
    const auto start = steady_clock::now();
    peer.beSilent();
    bool taken = steady_clock::now() - start < SOON;
    for (int i = 0; i < 1000; ++i) {
        taken = peer.send(NOTICES) && taken;
    }
    return taken;
}

/// Takes the first request, answers nothing, and sees how the client hangs up.
class SilentServer {
public:
    void waitForRequest() { requested_.get_future().wait(); }
    bool wasLeftInOrder() { return left_.get_future().get(); }
    std::string address() const { return server_.endpoint().toString(); }

private:
    std::promise<void> requested_;
    std::promise<bool> left_;
    FakeServer server_{[this](const FakePeer& peer) {
        peer.receive();
        requested_.set_value();
        left_.set_value(isHungUpOnInOrder(peer));
    }};
};

/// Answers like a board whose inputs are all low until the pins have been read once.
void beBoardUntilRead(const FakePeer& peer) {
    peer.answer({support::BOARD_PROBE_ANSWER, "LL\n", "Pffffffffffffe000P\n", "A00000000A\n"});
}

class CommandSignal : public testing::TestWithParam<std::vector<std::string>> {};

} // namespace

TEST_P(CommandSignal, EndsBySignalAndInOrderWhileAnAnswerIsAwaited) {
    SilentServer server;
    std::vector<std::string> arguments = GetParam();
    arguments.insert(arguments.begin(), "--timeout=1m");
    const auto program = startClient(server.address(), arguments);
    server.waitForRequest();
    program->sendSignal(SIGTERM);
    EXPECT_TRUE(server.wasLeftInOrder());
    EXPECT_EQ(program->waitForEnd(), -SIGTERM);
    EXPECT_EQ(program->error(), "");
}

INSTANTIATE_TEST_SUITE_P(
    All, CommandSignal,
    testing::Values(std::vector<std::string>{"info"}, std::vector<std::string>{"get", "3"},
                    std::vector<std::string>{"set", "3=1"}, std::vector<std::string>{"toggle", "3"},
                    std::vector<std::string>{"direction", "3"}, std::vector<std::string>{"monitor"},
                    std::vector<std::string>{"wait", "3=1"}, std::vector<std::string>{"raw", "I00"},
                    std::vector<std::string>{"ping"}),
    [](const auto& test) { return test.param.front(); });

TEST(ClientSignals, PingEndsInItsPause) {
    std::promise<void> pinged;
    FakeServer server([&](const FakePeer& peer) {
        peer.answer({"I0000I\n", "I0000I\n"});
        pinged.set_value();
        peer.receive();
    });
    const auto ping = startClient(server.endpoint().toString(), {"ping", "-i", "10m"});
    pinged.get_future().wait();
    ping->sendSignal(SIGINT);
    EXPECT_EQ(ping->waitForEnd(), -SIGINT);
    EXPECT_TRUE(ping->output().starts_with("1 requests answered")) << ping->output();
}

TEST(ClientSignals, MonitorHangsUpInOrderAndSilentlyWhenNobodyReadsItsOutput) {
    std::promise<bool> left;
    FakeServer server([&](const FakePeer& peer) {
        beBoardUntilRead(peer);
        while (!peer.receive().empty()) {
            peer.send(std::string(NOTICES) + "A00000000A\n");
        }
        left.set_value(isHungUpOnInOrder(peer));
    });
    const auto pipeline =
        startShell(server.endpoint().toString(), "$CLIENT monitor --poll=10ms | head -n 1");
    EXPECT_EQ(pipeline->waitForEnd(), 0);
    EXPECT_EQ(pipeline->error(), "");
    EXPECT_TRUE(left.get_future().get());
}

TEST(ClientSignals, MonitorOutlivesAHangupThatIsIgnored) {
    const RestartableServer server("--test");
    const auto monitor = startShell(
        server.address(), "trap '' HUP; exec $CLIENT monitor --banner -n1 --format-line=%E");
    ASSERT_TRUE(monitor->waitForOutput("watching"));
    monitor->sendSignal(SIGHUP);
    EXPECT_EQ(runClient(server.address(), {"set", "3=1"}).status, 0);
    EXPECT_EQ(monitor->waitForEnd(), 0);
    EXPECT_TRUE(monitor->output().ends_with("\nrising\n")) << monitor->output();
}

TEST(ClientSignals, ASecondSignalEndsAMonitorWhoseOutputIsStuck) {
    FakeServer server([](const FakePeer& peer) {
        beBoardUntilRead(peer);
        while (peer.send(NOTICES)) {
        }
    });
    const std::string fifo =
        std::filesystem::path(testing::TempDir()) / ("stuck-" + std::to_string(getpid()));
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const support::Descriptor reader(open(fifo.c_str(), O_RDWR | O_CLOEXEC));
    std::filesystem::remove(fifo);
    const int capacity = fcntl(reader.number(), F_SETPIPE_SZ, 4096);
    const auto monitor = startShell(server.endpoint().toString(),
                                    "exec $CLIENT monitor >/proc/" + std::to_string(getpid()) +
                                        "/fd/" + std::to_string(reader.number()));
    ASSERT_TRUE(support::eventually([&] {
        int held = 0;
        ioctl(reader.number(), FIONREAD, &held);
        return held > capacity - 64;
    }));
    // Two of one kind may arrive as one.
    monitor->sendSignal(SIGTERM);
    monitor->sendSignal(SIGINT);
    EXPECT_LT(monitor->waitForEnd().value_or(0), 0);
}

TEST(ClientSignals, MonitorEndsWhenIdleThoughAnAnswerIsMissing) {
    const auto fallSilent = [](const FakePeer& peer) {
        beBoardUntilRead(peer);
        peer.beSilent();
    };
    const auto start = steady_clock::now();
    EXPECT_EQ(
        runClient(fallSilent, {"--timeout=1m", "monitor", "--poll=10ms", "--idle-timeout=200ms"}),
        (Outcome{0, "", ""}));
    EXPECT_LT(steady_clock::now() - start, SOON);
}
