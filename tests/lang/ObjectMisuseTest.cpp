#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "lang/Object.h"
#include "lang/exception/IllegalUnlockException.h"
#include "support/Eventually.h"
#include "support/MonitorHold.h"
#include "support/Problem.h"

// Unlocking what is not held is the subject here, so the thread sanitizer need not report it.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-*,readability-identifier-naming)
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "report_mutex_bugs=0";
}
// NOLINTEND(bugprone-reserved-identifier,cert-*,readability-identifier-naming)

namespace {

using Guard = std::lock_guard<lang::Object>;

const std::string NOT_OWNER = "Trying to unlock a lock not owned by this thread!";

std::string unlockProblem(lang::Object& object) {
    return support::problemOf<lang::IllegalUnlockException>([&] { object.unlock(); });
}

/// A thread that holds the object's lock until it is told to release it.
class Holder {
public:
    explicit Holder(lang::Object& object) : thread_([this, &object] { hold(object); }) {
        EXPECT_TRUE(support::eventually([this] { return holding_.load(); }));
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    ~Holder() {
        release_ = true;
        thread_.join();
    }

private:
    void hold(lang::Object& object) {
        const Guard guard(object);
        holding_ = true;
        support::eventually([this] { return release_.load(); });
    }

    std::atomic<bool> holding_ = false;
    std::atomic<bool> release_ = false;
    std::thread thread_;
};

} // namespace

TEST(Object, UnlockBeyondTheLastLockIsRefused) {
    lang::Object object;
    object.lock();
    object.lock();
    object.unlock();
    object.unlock();
    EXPECT_EQ(unlockProblem(object), NOT_OWNER);
}

TEST(Object, RefusedUnlockLeavesTheOtherThreadsLockHeld) {
    lang::Object object;
    std::atomic<bool> entered = false;
    std::thread other;
    {
        const Holder holder(object);
        EXPECT_EQ(unlockProblem(object), NOT_OWNER);
        other = std::thread([&] {
            const Guard guard(object);
            entered = true;
        });
        EXPECT_FALSE(
            support::eventually([&] { return entered.load(); }, std::chrono::milliseconds(50)));
    }
    EXPECT_TRUE(support::eventually([&] { return entered.load(); }));
    other.join();
}

TEST(Object, CopyHasAMonitorOfItsOwn) {
    lang::Object object;
    const Holder holder(object);
    lang::Object copy(object);
    EXPECT_FALSE(support::isHeld(copy));
    const Guard guard(copy);
    EXPECT_TRUE(support::isHeld(copy));
}
