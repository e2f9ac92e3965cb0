#include <atomic>
#include <limits>

#include <gtest/gtest.h>

#include "interposed/SystemCalls.h"
#include "support/Eventually.h"
#include "support/Fakes.h"
#include "support/ScopedDebug.h"
#include "test/TestPinStateMonitor.h"

namespace {

/// A monitor at work whose sleeps take no time.
class SimulatedMonitorSleep : public testing::Test {
protected:
    SimulatedMonitorSleep() {
        interposed::sleepless = true;
        interposed::lastSleep = 1;
        interposed::yields = 0;
        monitor.setPinStateChangeListener(&listener);
    }
    ~SimulatedMonitorSleep() override {
        monitor.stop();
        EXPECT_TRUE(support::eventually([this] { return monitor.ended.load(); }));
        support::setSleepMicros(10000);
        interposed::sleepless = false;
    }

    TestCommandHandler bank;
    support::RecordingListener listener;
    support::ObservedMonitor monitor{&bank, false};
};

} // namespace

TEST_F(SimulatedMonitorSleep, NegativeSleepReachesTheSystemUnchanged) {
    support::setSleepMicros(-1);
    monitor.start();
    EXPECT_TRUE(support::eventually(
        [] { return interposed::lastSleep == std::numeric_limits<unsigned>::max(); }));
}

TEST_F(SimulatedMonitorSleep, SleepOfZeroIsFollowedByAYieldAsAnyOther) {
    support::setSleepMicros(0);
    monitor.start();
    EXPECT_TRUE(
        support::eventually([] { return interposed::lastSleep == 0 && interposed::yields >= 3; }));
}
