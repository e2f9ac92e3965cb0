#include <cerrno>

#include <gtest/gtest.h>

#include "concurrent/Thread.h"
#include "interposed/SystemCalls.h"
#include "support/Client.h"
#include "support/LogCapture.h"
#include "support/ServingServer.h"

namespace {

/// No thread can be created while it lives.
class WithoutThreads {
public:
    WithoutThreads() { interposed::threadCreationResult = EAGAIN; }
    WithoutThreads(const WithoutThreads&) = delete;
    WithoutThreads& operator=(const WithoutThreads&) = delete;
    ~WithoutThreads() { interposed::threadCreationResult = 0; }
};

class Idle : public concurrent::Runnable {
public:
    void run() override {}
};

const std::string COMPLAINT = "Failed to set thread name to 'GPIO Connection Handler'.[11]\n";

/// A server that has served one client and then cannot create another thread.
class ServerWithoutThreads : public testing::Test {
protected:
    void SetUp() override {
        serving_.launch();
        ASSERT_TRUE(serving_.waitUntilListening());
        existing_ = std::make_unique<support::Client>(serving_.port.number());
        ASSERT_EQ(existing_->request("O00"), "O0010O");
    }

    support::LogCapture capture_;
    support::ServingServer serving_;
    std::unique_ptr<support::Client> existing_;
};

} // namespace

TEST(ThreadCreation, FailureIsToldOnStandardErrorAndLeavesTheThreadNotStarted) {
    const WithoutThreads shortage;
    const support::LogCapture capture;
    Idle work;
    concurrent::Thread thread(&work, "GPIO Connection Handler");
    EXPECT_NO_THROW(thread.start());
    EXPECT_EQ(capture.error(), COMPLAINT);
    EXPECT_EQ(capture.output(), "");
    EXPECT_FALSE(thread.isStarted());
    EXPECT_NO_THROW(thread.join());
}

TEST_F(ServerWithoutThreads, NewcomerIsClosedWithoutAByteAndItsEndLoggedAsAnyOther) {
    const WithoutThreads shortage;
    support::Client newcomer(serving_.port.number());
    EXPECT_TRUE(newcomer.waitForEnd());
    EXPECT_TRUE(capture_.waitForError(COMPLAINT));
    EXPECT_TRUE(capture_.waitForOutput("] was ended.\n"));
    EXPECT_TRUE(capture_.waitForOutput("[GpioServer] Freed memory of Connection ["));
}

TEST_F(ServerWithoutThreads, AcceptingRestsForATenthOfASecond) {
    interposed::lastSleep = 0;
    const WithoutThreads shortage;
    const support::Client newcomer(serving_.port.number());
    EXPECT_TRUE(support::eventually([] { return interposed::lastSleep == 100000; }));
}

TEST_F(ServerWithoutThreads, ServesExistingClientsAndNewcomersOnceThereAreThreadsAgain) {
    {
        const WithoutThreads shortage;
        support::Client newcomer(serving_.port.number());
        EXPECT_TRUE(newcomer.waitForEnd());
        EXPECT_EQ(existing_->request("I00"), "I0000I");
    }
    support::Client later(serving_.port.number());
    EXPECT_EQ(later.request("O00"), "O0010O");
}
