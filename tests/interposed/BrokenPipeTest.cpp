#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "interposed/SystemCalls.h"
#include "io/exception/ConnectionException.h"
#include "support/BrokenPipes.h"
#include "support/ConnectedPair.h"
#include "support/LogCapture.h"

namespace {

/// A connection whose reads and writes meet the errors that a test chooses.
class BrokenPipe : public testing::Test {
protected:
    ~BrokenPipe() override {
        interposed::readError = 0;
        interposed::sendError = 0;
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

    support::BrokenPipes signals_;

private:
    support::LogCapture capture_;
    support::ConnectedPair pair_;
};

} // namespace

TEST_F(BrokenPipe, IsSignalledAfterAResetThatAReadHasTold) {
    read(ECONNRESET);
    write(EPIPE);
    EXPECT_EQ(signals_.seen(), 1);
}

TEST_F(BrokenPipe, IsNotSignalledWhenAReadHasToldThatThePeerWasGivenUp) {
    read(ETIMEDOUT);
    write(EPIPE);
    EXPECT_EQ(signals_.seen(), 0);
}

TEST_F(BrokenPipe, IsNotSignalledWhenAWriteHasToldThatThePeerWasGivenUp) {
    write(EHOSTUNREACH);
    write(EPIPE);
    EXPECT_EQ(signals_.seen(), 0);
}

TEST_F(BrokenPipe, IsNotSignalledForAReset) {
    write(ECONNRESET);
    EXPECT_EQ(signals_.seen(), 0);
}
