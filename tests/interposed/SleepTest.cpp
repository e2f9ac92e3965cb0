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
        monitor_.setPinStateChangeListener(&listener_);
    }
    ~SimulatedMonitorSleep() override {
        monitor_.stop();
        EXPECT_TRUE(support::eventually([this] { return monitor_.ended.load(); }));
        support::setSleepMicros(10000);
        interposed::sleepless = false;
    }

    TestCommandHandler bank_;
    support::RecordingListener listener_;
    support::ObservedMonitor monitor_{&bank_, false};
};

} // namespace

TEST_F(SimulatedMonitorSleep, NegativeSleepReachesTheSystemUnchanged) {
    support::setSleepMicros(-1);
    monitor_.start();
    EXPECT_TRUE(support::eventually(
        [] { return interposed::lastSleep == std::numeric_limits<unsigned>::max(); }));
}

TEST_F(SimulatedMonitorSleep, SleepOfZeroIsFollowedByAYieldAsAnyOther) {
    support::setSleepMicros(0);
    monitor_.start();
    EXPECT_TRUE(
        support::eventually([] { return interposed::lastSleep == 0 && interposed::yields >= 3; }));
}
