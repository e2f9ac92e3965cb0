#include "lang/Object.h"

#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "exception/CommandException.h"
#include "exception/DeviceUnavailableException.h"
#include "exception/LauncherException.h"
#include "io/exception/ConnectionException.h"
#include "io/exception/ServerSocketException.h"
#include "lang/exception/IllegalMonitorSateException.h"
#include "lang/exception/IllegalUnlockException.h"
#include "lang/exception/UnsupportedOperationException.h"
#include "support/Eventually.h"
#include "support/MonitorHold.h"
#include "support/Problem.h"

namespace {

using Guard = std::lock_guard<lang::Object>;

/// Threads that wait on an object, and how many of them were woken.
class Waiters {
public:
    Waiters(lang::Object& watched, int count) : object_(watched) {
        for (int index = 0; index < count; ++index) {
            threads_.emplace_back([this] { waitForTurn(); });
        }
        EXPECT_TRUE(support::eventually([this, count] {
            const Guard guard(object_);
            return waiting_ == count;
        }));
    }
    Waiters(const Waiters&) = delete;
    Waiters& operator=(const Waiters&) = delete;
    ~Waiters() {
        {
            const Guard guard(object_);
            turns_ = static_cast<int>(threads_.size());
            object_.notifyAll();
        }
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

    void let(int count, void (lang::Object::*notification)()) {
        const Guard guard(object_);
        turns_ += count;
        (object_.*notification)();
    }

    /// How often a wait has returned, in vain or not.
    int timesAwakened() {
        const Guard guard(object_);
        return awakenings_;
    }

    bool waitForWoken(int count) {
        return support::eventually([this, count] {
            const Guard guard(object_);
            return woken_ == count;
        });
    }

private:
    void waitForTurn() {
        const Guard guard(object_);
        ++waiting_;
        while (turns_ == 0) {
            object_.wait();
            ++awakenings_;
        }
        --turns_;
        ++woken_;
    }

    lang::Object& object_;
    int waiting_ = 0;
    int turns_ = 0;
    int woken_ = 0;
    int awakenings_ = 0;
    std::vector<std::thread> threads_;
};

} // namespace

TEST(Object, TimedWaitReturnsAtOnceWithTheLockHeld) {
    lang::Object object;
    const auto began = std::chrono::steady_clock::now();
    for (const long micros : {0L, 1L, 1000000L, 1000001L, 5000000L}) {
        const Guard guard(object);
        EXPECT_NO_THROW(object.wait(micros));
        EXPECT_TRUE(support::isHeld(object)) << micros;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5));
}

TEST(Object, TimedWaitUntilAnInvalidMomentIsRefused) {
    lang::Object object;
    const Guard guard(object);
    EXPECT_EQ(support::problemOf<lang::IllegalMonitorSateException>([&] { object.wait(-1); }),
              "Thread not owner of lock or wait not called between lock/unlock calls!");
}

TEST(Object, NotificationWakesNobodyElse) {
    constexpr int COUNT = 8;
    lang::Object object;
    Waiters waiters(object, COUNT);
    for (int number = 1; number <= COUNT; ++number) {
        waiters.let(1, &lang::Object::notify);
        ASSERT_TRUE(waiters.waitForWoken(number));
    }
    EXPECT_EQ(waiters.timesAwakened(), COUNT);
}

TEST(Object, NotificationOfAllWakesEveryWaiter) {
    lang::Object object;
    Waiters waiters(object, 4);
    waiters.let(4, &lang::Object::notifyAll);
    EXPECT_TRUE(waiters.waitForWoken(4));
}

TEST(Object, NotificationWithoutWaitersIsHarmless) {
    lang::Object object;
    const Guard guard(object);
    EXPECT_NO_THROW(object.notify());
    EXPECT_NO_THROW(object.notifyAll());
}

TEST(Object, AssignmentKeepsTheMonitor) {
    lang::Object object;
    lang::Object other;
    const Guard guard(object);
    object = other;
    EXPECT_TRUE(support::isHeld(object));
}

namespace {

template <typename Problem> class ExceptionFamily : public testing::Test {};

using Family = testing::Types<lang::Exception, lang::IllegalMonitorSateException,
                              lang::IllegalUnlockException, lang::UnsupportedOperationException,
                              io::ConnectionException, io::ServerSocketException, CommandException,
                              DeviceUnavailableException, LauncherException>;

} // namespace

TYPED_TEST_SUITE(ExceptionFamily, Family);

TYPED_TEST(ExceptionFamily, KeepsItsMessageExactly) {
    const std::string text("no %s, \xff and \0 inside", 21);
    TypeParam original(text);
    TypeParam copy(original);
    EXPECT_EQ(original.getMessage(), text);
    EXPECT_EQ(copy.getMessage(), text);
}

TYPED_TEST(ExceptionFamily, IsCaughtAsTheRoot) {
    EXPECT_EQ(support::problemOf<lang::Exception>([] { throw TypeParam("thrown"); }), "thrown");
}

TYPED_TEST(ExceptionFamily, IsNoStandardException) {
    EXPECT_FALSE((std::is_base_of_v<std::exception, TypeParam>));
    EXPECT_TRUE((std::is_base_of_v<lang::Object, TypeParam>));
}
