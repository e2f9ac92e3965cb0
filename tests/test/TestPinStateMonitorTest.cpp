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
        if (monitor.isRunning()) {
            endLoop();
        }
        support::setSleepMicros(10000);
    }

    void startWithListener(long sleepMicros = 500) {
        support::setSleepMicros(sleepMicros);
        monitor.setPinStateChangeListener(&listener);
        monitor.start();
        monitor.resume();
    }

    void endLoop() {
        monitor.setPinStateChangeListener(&listener);
        monitor.pause();
        monitor.resume();
        monitor.stop();
        EXPECT_TRUE(support::eventually([this] { return monitor.ended.load(); }));
    }

    bool waitForMessages(std::size_t count) {
        return support::eventually([this, count] { return listener.messages().size() >= count; });
    }

    /// Waits until the loop has looked at the pins since this call.
    bool waitForALook() {
        const int before = bank.cycles;
        return support::eventually([this, before] { return bank.cycles >= before + 2; });
    }

    /// Pauses and waits until the loop stands still.
    void pauseAndSettle() {
        monitor.pause();
        int seen = bank.cycles;
        EXPECT_TRUE(support::eventually([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            return std::exchange(seen, bank.cycles.load()) == bank.cycles;
        }));
    }

    CountingBank bank;
    RecordingListener listener;
    support::ObservedMonitor monitor{&bank, true};
};

} // namespace

TEST_F(SimulatedMonitor, IsNotRunningUntilStarted) {
    EXPECT_FALSE(monitor.isRunning());
    monitor.run();
    EXPECT_EQ(bank.cycles, 0);
}

TEST_F(SimulatedMonitor, InputChangesAreReported) {
    startWithListener();
    bank.setDirection(3, 1);
    bank.writePin(3, 1);
    ASSERT_TRUE(waitForMessages(1));
    bank.writePin(3, 0);
    ASSERT_TRUE(waitForMessages(2));
    EXPECT_EQ(listener.messages(), (Messages{"U0008|0008U", "U0008|0000U"}));
}

TEST_F(SimulatedMonitor, OutputChangesAreNotReported) {
    startWithListener();
    bank.writePin(3, 1);
    ASSERT_TRUE(waitForALook());
    EXPECT_EQ(listener.messages(), Messages{});
}

TEST_F(SimulatedMonitor, NothingIsReportedDuringAPause) {
    startWithListener();
    bank.setDirection(3, 1);
    ASSERT_TRUE(waitForALook());
    pauseAndSettle();
    bank.writePin(3, 1);
    EXPECT_FALSE(support::eventually([this] { return !listener.messages().empty(); },
                                     std::chrono::milliseconds(50)));
}

TEST_F(SimulatedMonitor, ValuesAreKeptOverAPause) {
    startWithListener();
    bank.setDirection(0, 1);
    bank.setDirection(3, 1);
    bank.writePin(0, 1);
    ASSERT_TRUE(waitForMessages(1));
    pauseAndSettle();
    bank.writePin(3, 1);
    monitor.resume();
    ASSERT_TRUE(waitForMessages(2));
    EXPECT_EQ(listener.messages().back(), "U0008|0009U");
}

TEST_F(SimulatedMonitor, ChangesDuringAPauseAreOneMessage) {
    startWithListener();
    for (BYTE pin = 0; pin < 4; ++pin) {
        bank.setDirection(pin, 1);
    }
    ASSERT_TRUE(waitForALook());
    pauseAndSettle();
    for (BYTE pin = 0; pin < 4; ++pin) {
        bank.writePin(pin, 1);
    }
    monitor.resume();
    ASSERT_TRUE(waitForALook());
    EXPECT_EQ(listener.messages(), Messages{"U000f|000fU"});
}

TEST_F(SimulatedMonitor, SleepOfZeroGoesOnLooking) {
    startWithListener(0);
    EXPECT_TRUE(waitForALook());
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
    // The listener alone wakes nobody.
    monitor.setPinStateChangeListener(&listener);
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

TEST(SimulatedMonitorLog, IsSilentWithoutDebugOutput) {
    const LogCapture capture;
    CountingBank bank;
    RecordingListener listener;
    support::ObservedMonitor monitor(&bank, true);
    monitor.setPinStateChangeListener(&listener);
    monitor.start();
    monitor.resume();
    EXPECT_TRUE(support::eventually([&] { return bank.cycles > 0; }));
    monitor.stop();
    EXPECT_TRUE(support::eventually([&] { return monitor.ended.load(); }));
    EXPECT_EQ(capture.output(), "");
}
