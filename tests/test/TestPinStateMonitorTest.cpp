#include "test/TestPinStateMonitor.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/Fakes.h"
#include "support/LogCapture.h"
#include "support/LogLines.h"
#include "support/ScopedDebug.h"

using support::LogCapture;
using support::RecordingListener;
using support::ScopedDebug;

namespace {

using Messages = std::vector<std::string>;

/// Counts the monitor's looks at the pins.
class CountingBank : public TestCommandHandler {
public:
    void renewOutputStates() override { ++cycles; }
    std::atomic<int> cycles = 0;
};

class SimulatedMonitor : public testing::Test {
protected:
    ~SimulatedMonitor() override {
        if (monitor_.isRunning()) {
            endLoop();
        }
        support::setSleepMicros(10000);
    }

    void startWithListener() {
        support::setSleepMicros(500);
        monitor_.setPinStateChangeListener(&listener_);
        monitor_.start();
        monitor_.resume();
    }

    void endLoop() {
        monitor_.setPinStateChangeListener(&listener_);
        monitor_.pause();
        monitor_.resume();
        monitor_.stop();
        EXPECT_TRUE(support::eventually([this] { return monitor_.ended.load(); }));
    }

    bool waitForMessages(std::size_t count) {
        return support::eventually([this, count] { return listener_.messages().size() >= count; });
    }

    /// Waits until the loop has looked at the pins since this call.
    bool waitForALook() {
        const int before = bank_.cycles;
        return support::eventually([this, before] { return bank_.cycles >= before + 2; });
    }

    /// Pauses and waits until the loop stands still.
    void pauseAndSettle() {
        monitor_.pause();
        int seen = bank_.cycles;
        EXPECT_TRUE(support::eventually([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            return std::exchange(seen, bank_.cycles.load()) == bank_.cycles;
        }));
    }

    CountingBank bank_;
    RecordingListener listener_;
    support::ObservedMonitor monitor_{&bank_, true};
};

} // namespace

TEST_F(SimulatedMonitor, IsNotRunningUntilStarted) {
    EXPECT_FALSE(monitor_.isRunning());
    monitor_.run();
    EXPECT_EQ(bank_.cycles, 0);
}

TEST_F(SimulatedMonitor, InputChangesAreReportedAndNotLogged) {
    const LogCapture capture;
    startWithListener();
    bank_.setDirection(3, 1);
    bank_.writePin(3, 1);
    ASSERT_TRUE(waitForMessages(1));
    bank_.writePin(3, 0);
    ASSERT_TRUE(waitForMessages(2));
    EXPECT_EQ(listener_.messages(), (Messages{"U0008|0008U", "U0008|0000U"}));
    EXPECT_EQ(capture.output(), "");
}

TEST_F(SimulatedMonitor, ChangesDuringAPauseAreOneMessageAfterIt) {
    startWithListener();
    for (BYTE pin = 0; pin < 4; ++pin) {
        bank_.setDirection(pin, 1);
    }
    bank_.writePin(0, 1);
    ASSERT_TRUE(waitForMessages(1));
    pauseAndSettle();
    for (BYTE pin = 1; pin < 4; ++pin) {
        bank_.writePin(pin, 1);
    }
    EXPECT_FALSE(support::eventually([this] { return listener_.messages().size() > 1; },
                                     std::chrono::milliseconds(50)));
    monitor_.resume();
    ASSERT_TRUE(waitForALook());
    EXPECT_EQ(listener_.messages(), (Messages{"U0001|0001U", "U000e|000fU"}));
}

TEST(SimulatedMonitorLog, WithoutListenerItWaitsUntilOneIsAttachedAndItIsResumed) {
    const ScopedDebug debug;
    const LogCapture capture;
    CountingBank bank;
    RecordingListener listener;
    support::ObservedMonitor monitor(&bank, true);
    const std::string waiting = "[TestPinStateMonitor] TestPinStateMonitor is paused, waiting.\n";
    const std::string goingOn = "[TestPinStateMonitor] TestPinStateMonitor can continue.\n";
    monitor.start();
    ASSERT_TRUE(capture.waitForOutput(waiting));
    EXPECT_EQ(bank.cycles, 0);
    // Woken, but with nobody listening still paused.
    monitor.resume();
    ASSERT_TRUE(capture.waitForOutput(waiting, 2));
    EXPECT_EQ(support::countOf(goingOn, capture.output()), 0U);
    // Neither the listener alone wakes it, nor the end of a pause that is over already.
    monitor.setPinStateChangeListener(&listener);
    monitor.resume();
    EXPECT_FALSE(
        support::eventually([&] { return bank.cycles > 0; }, std::chrono::milliseconds(50)));
    monitor.pause();
    monitor.resume();
    EXPECT_TRUE(capture.waitForOutput(goingOn));
    EXPECT_TRUE(support::eventually([&] { return bank.cycles > 0; }));
    monitor.stop();
    EXPECT_TRUE(support::eventually([&] { return monitor.ended.load(); }));
    EXPECT_EQ(capture.error(), "");
}
