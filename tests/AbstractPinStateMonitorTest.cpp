#include "AbstractPinStateMonitor.h"

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/Fakes.h"
#include "support/LogCapture.h"
#include "support/ScopedDebug.h"

using support::FakeDevice;
using support::FakeMonitor;
using support::LogCapture;
using support::RecordingListener;
using support::ScopedDebug;

namespace {

using Guard = std::lock_guard<lang::Object>;
using Lines = std::vector<std::string>;
using Messages = std::vector<std::string>;

const std::string NOBODY_LISTENS =
    "[AbstractPinStateMonitor] Resuming thread requested but no-one is interested in events, so "
    "isPaused will return true until a listener is attached.";

/// Reports the levels and directions that a test sets.
class ScriptedPins : public FakeDevice {
public:
    void getPinChanges(DWORD* currentValues, DWORD* currentDirections) override {
        *currentValues = values;
        *currentDirections = directions;
    }

    DWORD values = 0;
    DWORD directions = 0;
};

class PinStateMonitor : public testing::Test {
protected:
    PinStateMonitor() { monitor_.setPinStateChangeListener(&listener_); }

    void look(DWORD values, DWORD directions) {
        pins_.values = values;
        pins_.directions = directions;
        monitor_.checkForInputPinChangesAndBroadcastIfNeeded(&previous_);
    }

    ScriptedPins pins_;
    RecordingListener listener_;
    FakeMonitor monitor_{&pins_, false};
    DWORD previous_ = 0;
};

/// A monitor whose loop counts its runs and ends when told.
class LoopingMonitor : public AbstractPinStateMonitor {
public:
    LoopingMonitor() : AbstractPinStateMonitor(nullptr, false) {}

    void run() override {
        ++entered;
        while (isRunning()) {
            concurrent::Thread::sleep(1000);
        }
        ++left;
    }

    bool waitUntilEntered(int count) {
        return support::eventually([this, count] { return entered == count; });
    }

    bool waitUntilLeft(int count) {
        return support::eventually([this, count] { return left == count; });
    }

    std::atomic<int> entered = 0;
    std::atomic<int> left = 0;
};

class PauseOfMonitor : public testing::Test {
protected:
    PauseOfMonitor() { monitor_.start(); }

    ~PauseOfMonitor() override {
        EXPECT_TRUE(monitor_.waitUntilEntered(1));
        monitor_.stop();
        EXPECT_TRUE(monitor_.waitUntilLeft(1));
    }

    LoopingMonitor monitor_;
    RecordingListener listener_;
};

} // namespace

TEST_F(PinStateMonitor, HasItsOwnRunForItsSubclasses) {
    EXPECT_TRUE((std::is_same_v<decltype(&AbstractPinStateMonitor::run),
                                void (AbstractPinStateMonitor::*)()>));
}

struct Look {
    std::string name;
    DWORD previous;
    DWORD values;
    DWORD directions;
    std::string message; ///< empty for none
    DWORD remembered;
    std::string change; ///< as the log tells it; empty for none

    friend void PrintTo(const Look& look, std::ostream* stream) { *stream << look.name; }
};

class LookAtPins : public PinStateMonitor, public testing::WithParamInterface<Look> {
protected:
    void lookOnce() {
        previous_ = GetParam().previous;
        look(GetParam().values, GetParam().directions);
    }
};

TEST_P(LookAtPins, IsToldInOneMessageAndRememberedOnlyThen) {
    lookOnce();
    const std::string& message = GetParam().message;
    EXPECT_EQ(listener_.messages(), message.empty() ? Messages{} : Messages{message});
    EXPECT_EQ(previous_, GetParam().remembered);
}

TEST_P(LookAtPins, IsLoggedInDebugOutput) {
    const ScopedDebug debug;
    const LogCapture capture;
    lookOnce();
    const std::string owner = "[AbstractPinStateMonitor] ";
    Lines expected;
    if (!GetParam().change.empty()) {
        expected.push_back(owner +
                           "A pin value changed :: Current pin values: " + GetParam().change);
    }
    if (!GetParam().message.empty()) {
        expected.push_back(owner + "input pin(s) changed.");
        expected.push_back(owner + "Broadcasted input pin changes");
    }
    EXPECT_EQ(capture.outputLines(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    OneWith, LookAtPins,
    testing::Values(Look{"InputGoneHigh", 0, 8, 8, "U0008|0008U", 8,
                         "currentDirections = [8] currentReadPinValues = [8]"},
                    Look{"InputGoneLow", 1, 0, 1, "U0001|0000U", 0,
                         "currentDirections = [1] currentReadPinValues = [0]"},
                    Look{"SeveralInputs", 0, 0x0b, 0x0f, "U000b|000bU", 0x0b,
                         "currentDirections = [F] currentReadPinValues = [B]"},
                    Look{"InputsAndOutputs", 0, 0xff, 0x0f, "U000f|00ffU", 0xff,
                         "currentDirections = [F] currentReadPinValues = [FF]"},
                    Look{"WideNumbers", 0x1fffe000, 0x1fffc000, 0xFFFFFFFFFFFFE000,
                         "U2000|1fffc000U", 0x1fffc000,
                         "currentDirections = [FFFFE000] currentReadPinValues = [1FFFC000]"},
                    Look{"OutputsAlone", 0, 0xab, 0x100, "", 0,
                         "currentDirections = [100] currentReadPinValues = [AB]"},
                    Look{"NoChange", 8, 8, 8, "", 8, ""},
                    Look{"ChangesBeyondThirtyTwoBits", 0, 0xF00000000, 0xF00000000, "", 0, ""}),
    [](const auto& test) { return test.param.name; });

TEST_F(PinStateMonitor, LogsNoChangeWithoutDebugOutput) {
    const LogCapture capture;
    look(0x8, 0x8);
    EXPECT_EQ(capture.output(), "");
}

TEST_F(PinStateMonitor, WithoutListenerChangesAreDroppedButRemembered) {
    const ScopedDebug debug;
    const LogCapture capture;
    monitor_.setPinStateChangeListener(nullptr);
    look(0x8, 0x8);
    EXPECT_EQ(previous_, 0x8U);
    EXPECT_EQ(capture.outputLines().back(), "[AbstractPinStateMonitor] input pin(s) changed.");
}

TEST_F(PinStateMonitor, ListenersExceptionPassesThroughAndNothingIsRemembered) {
    class Failing : public PinStateChangeListener {
    public:
        void pinStateChanged(std::string /*message*/) override { throw lang::Exception("full"); }
    };
    Failing failing;
    monitor_.setPinStateChangeListener(&failing);
    EXPECT_THROW(look(0x8, 0x8), lang::Exception);
    EXPECT_EQ(previous_, 0U);
}

TEST_F(PinStateMonitor, CountsAsPausedWithoutListener) {
    EXPECT_FALSE(monitor_.isPaused());
    monitor_.setPinStateChangeListener(nullptr);
    EXPECT_TRUE(monitor_.isPaused());
}

TEST_F(PinStateMonitor, StartsPausedWhenBuiltSo) {
    FakeMonitor paused(&pins_, true);
    paused.setPinStateChangeListener(&listener_);
    EXPECT_TRUE(paused.isPaused());
    EXPECT_FALSE(paused.isRunning());
}

TEST_F(PinStateMonitor, PauseAndResumeDoNothingBeforeTheStart) {
    const LogCapture capture;
    monitor_.setPinStateChangeListener(nullptr);
    monitor_.pause();
    monitor_.resume();
    monitor_.setPinStateChangeListener(&listener_);
    EXPECT_FALSE(monitor_.isPaused());
    EXPECT_EQ(capture.output(), "");
}

TEST_F(PinStateMonitor, DisconnectionCallbackMayClearItself) {
    static int calls = 0;
    monitor_.setDeviceDisconnectionCallback(
        [](void* monitor) {
            ++calls;
            static_cast<FakeMonitor*>(monitor)->setDeviceDisconnectionCallback(nullptr, nullptr);
        },
        &monitor_);
    monitor_.callDeviceDisconnectionCallback();
    monitor_.callDeviceDisconnectionCallback();
    EXPECT_EQ(calls, 1);
}

TEST_F(PinStateMonitor, DisconnectionCallbackGetsItsArgumentUntilItIsCleared) {
    int calls = 0;
    monitor_.setDeviceDisconnectionCallback([](void* counter) { ++*static_cast<int*>(counter); },
                                            &calls);
    monitor_.callDeviceDisconnectionCallback();
    EXPECT_EQ(calls, 1);
    monitor_.setDeviceDisconnectionCallback(nullptr, nullptr);
    monitor_.callDeviceDisconnectionCallback();
    EXPECT_EQ(calls, 1);
}

TEST_F(PinStateMonitor, ClearingTheCallbackWaitsForACallUnderWay) {
    struct Call {
        std::atomic<bool> begun = false;
        std::atomic<bool> mayEnd = false;
        std::atomic<bool> over = false;
    } call;
    monitor_.setDeviceDisconnectionCallback(
        [](void* argument) {
            auto* const current = static_cast<Call*>(argument);
            current->begun = true;
            support::eventually([current] { return current->mayEnd.load(); });
            current->over = true;
        },
        &call);
    std::thread caller([this] { monitor_.callDeviceDisconnectionCallback(); });
    ASSERT_TRUE(support::eventually([&] { return call.begun.load(); }));
    bool overWhenCleared = false;
    std::thread clearer([&] {
        monitor_.setDeviceDisconnectionCallback(nullptr, nullptr);
        overWhenCleared = call.over;
    });
    call.mayEnd = true;
    clearer.join();
    caller.join();
    EXPECT_TRUE(overWhenCleared);
}

TEST_F(PauseOfMonitor, WithoutListenerWritesItsLineOnceWhateverTheDebugSetting) {
    const LogCapture capture;
    monitor_.pause();
    monitor_.pause();
    EXPECT_EQ(capture.outputLines(), Lines{NOBODY_LISTENS});
}

TEST_F(PauseOfMonitor, WithListenerWritesNothing) {
    const LogCapture capture;
    monitor_.setPinStateChangeListener(&listener_);
    monitor_.pause();
    EXPECT_TRUE(monitor_.isPaused());
    monitor_.resume();
    EXPECT_FALSE(monitor_.isPaused());
    EXPECT_EQ(capture.output(), "");
}

TEST_F(PauseOfMonitor, ResumeIsLoggedOnlyWhenItEndsAPause) {
    const ScopedDebug debug;
    const LogCapture capture;
    monitor_.resume();
    EXPECT_EQ(capture.output(), "");
    monitor_.setPinStateChangeListener(&listener_);
    monitor_.pause();
    monitor_.resume();
    EXPECT_EQ(capture.outputLines(), Lines{"[AbstractPinStateMonitor] Notifying PinStateMonitor."});
}

TEST_F(PauseOfMonitor, ResumeWakesItsWaiters) {
    monitor_.setPinStateChangeListener(&listener_);
    monitor_.pause();
    std::promise<void> locked;
    const auto waiter = std::async(std::launch::async, [&] {
        const Guard guard(monitor_);
        locked.set_value();
        monitor_.wait();
    });
    locked.get_future().wait();
    // Takes the lock, which the waiter lets go of inside its wait.
    monitor_.resume();
    EXPECT_EQ(waiter.wait_for(support::PATIENCE), std::future_status::ready);
    const Guard guard(monitor_);
    monitor_.notifyAll();
}

TEST(LifeOfMonitor, StartingTwiceStartsOneThread) {
    LoopingMonitor monitor;
    monitor.start();
    monitor.start();
    ASSERT_TRUE(monitor.waitUntilEntered(1));
    EXPECT_TRUE(monitor.isRunning());
    monitor.stop();
    EXPECT_TRUE(monitor.waitUntilLeft(1));
    EXPECT_EQ(monitor.entered, 1);
}

TEST(LifeOfMonitor, CanBeStartedAgainAfterTheStop) {
    LoopingMonitor monitor;
    for (int time = 1; time <= 3; ++time) {
        monitor.start();
        ASSERT_TRUE(monitor.waitUntilEntered(time));
        monitor.stop();
        EXPECT_FALSE(monitor.isRunning());
        ASSERT_TRUE(monitor.waitUntilLeft(time));
    }
}

TEST(LifeOfMonitor, StoppingAMonitorThatDoesNotRunIsHarmless) {
    LoopingMonitor monitor;
    monitor.stop();
    EXPECT_FALSE(monitor.isRunning());
}
