#include <cerrno>
#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "interposed/SystemCalls.h"
#include "io/exception/ConnectionException.h"
#include "support/ConnectedPair.h"
#include "support/LogCapture.h"

namespace {

volatile std::sig_atomic_t signals = 0;

/// A connection whose reads and writes meet the errors that a test chooses.
class BrokenPipe : public testing::Test {
protected:
    BrokenPipe() { signals = 0; }
    ~BrokenPipe() override {
        interposed::readError = 0;
        interposed::sendError = 0;
        static_cast<void>(std::signal(SIGPIPE, before_));
    }

    void read(int error) {
        interposed::readError = error;
        std::string text;
        EXPECT_THROW(pair_.connection >> text, io::ConnectionException);
    }

    void write(int error) {
        interposed::sendError = error;
        EXPECT_THROW(pair_.connection << "R1R", io::ConnectionException);
    }

private:
    support::LogCapture capture_;
    void (*before_)(int) = std::signal(SIGPIPE, [](int) { signals = signals + 1; });
    support::ConnectedPair pair_;
};

} // namespace

TEST_F(BrokenPipe, IsSignalledAfterAResetThatAReadHasTold) {
    read(ECONNRESET);
    write(EPIPE);
    EXPECT_EQ(signals, 1);
}

TEST_F(BrokenPipe, IsNotSignalledWhenAReadHasToldThatThePeerWasGivenUp) {
    read(ETIMEDOUT);
    write(EPIPE);
    EXPECT_EQ(signals, 0);
}

TEST_F(BrokenPipe, IsNotSignalledWhenAWriteHasToldThatThePeerWasGivenUp) {
    write(EHOSTUNREACH);
    write(EPIPE);
    EXPECT_EQ(signals, 0);
}

TEST_F(BrokenPipe, IsNotSignalledForAReset) {
    write(ECONNRESET);
    EXPECT_EQ(signals, 0);
}
