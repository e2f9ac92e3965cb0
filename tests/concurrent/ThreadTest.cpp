#include "concurrent/Thread.h"

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <pthread.h>

#include "support/Eventually.h"

using concurrent::Thread;

namespace {

std::string systemName() {
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

/// Runs until it is released, and tells what it saw.
class Work : public concurrent::Runnable {
public:
    void run() override {
        id = static_cast<long>(pthread_self());
        running_ = true;
        support::eventually([this] { return released_.load(); });
        nameSeen = systemName();
        done_ = true;
    }

    bool waitUntilRunning() {
        return support::eventually([this] { return running_.load(); });
    }

    void release() { released_ = true; }

    bool waitUntilDone() {
        return support::eventually([this] { return done_.load(); });
    }

    std::atomic<long> id = 0;
    std::string nameSeen;

private:
    std::atomic<bool> running_ = false;
    std::atomic<bool> released_ = false;
    std::atomic<bool> done_ = false;
};

std::string systemNameOf(const std::string& name) {
    Work work;
    Thread thread(&work, name);
    thread.start();
    // The name is set after the creation, so the thread looks at it only once start() is over.
    work.release();
    thread.join();
    return work.nameSeen;
}

} // namespace

TEST(Thread, EntryWithoutWorkReturnsNull) {
    EXPECT_EQ(Thread::runnableCaller(nullptr), nullptr);
}

TEST(Thread, EntryRunsTheWorkOnTheCallingThread) {
    Work work;
    work.release();
    concurrent::Runnable* const runnable = &work;
    EXPECT_EQ(Thread::runnableCaller(runnable), nullptr);
    EXPECT_EQ(work.id, static_cast<long>(pthread_self()));
}

TEST(Thread, RunsTheWorkOnAThreadOfItsOwn) {
    Work work;
    work.release();
    Thread thread(&work, "worker");
    thread.start();
    EXPECT_TRUE(thread.isStarted());
    thread.join();
    EXPECT_EQ(work.id, thread.getId());
    EXPECT_NE(work.id, static_cast<long>(pthread_self()));
}

TEST(Thread, ShortNameIsTheSystemsName) {
    EXPECT_EQ(systemNameOf("worker"), "worker");
    EXPECT_EQ(systemNameOf("fifteen letters"), "fifteen letters");
}

TEST(Thread, LongNameLeavesTheProcessName) {
    EXPECT_EQ(systemNameOf("Pin state monitor"), systemName());
    EXPECT_EQ(systemNameOf("GPIO Connection Handler"), systemName());
}

TEST(Thread, NameIsKeptInFull) {
    Work work;
    EXPECT_EQ(Thread(&work, "Pin state monitor").getName(), "Pin state monitor");
}

TEST(Thread, WithoutNameKeepsNoName) {
    Work work;
    Thread thread(&work);
    EXPECT_EQ(thread.getName(), "");
    EXPECT_FALSE(thread.isStarted());
}

TEST(Thread, DeletingItLeavesTheWorkRunning) {
    Work work;
    auto thread = std::make_unique<Thread>(&work, "worker");
    thread->start();
    ASSERT_TRUE(work.waitUntilRunning());
    thread.reset();
    work.release();
    EXPECT_TRUE(work.waitUntilDone());
}

TEST(Thread, JoiningTwiceOrWithoutStartIsHarmless) {
    Work work;
    work.release();
    Thread thread(&work, "worker");
    thread.join();
    thread.start();
    thread.join();
    thread.join();
    EXPECT_TRUE(work.waitUntilDone());
}

TEST(Thread, SleepCountsMicroseconds) {
    const auto began = std::chrono::steady_clock::now();
    Thread::sleep(10000);
    const auto slept = std::chrono::steady_clock::now() - began;
    EXPECT_GE(slept, std::chrono::milliseconds(10));
    EXPECT_LT(slept, std::chrono::seconds(10));
}
