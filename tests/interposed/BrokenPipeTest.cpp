#include <array>
#include <cerrno>
#include <csignal>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "interposed/SystemCalls.h"
#include "io/Connection.h"
#include "io/exception/ConnectionException.h"
#include "support/Descriptor.h"
#include "support/LogCapture.h"

namespace {

volatile std::sig_atomic_t signals = 0;

/// A connection whose reads and writes meet the errors that a test chooses.
class BrokenPipe : public testing::Test {
protected:
    BrokenPipe() : BrokenPipe(makePair()) {}
    ~BrokenPipe() override {
        interposed::readError = 0;
        interposed::sendError = 0;
        static_cast<void>(std::signal(SIGPIPE, before_));
    }

    void read(int error) {
        interposed::readError = error;
        std::string text;
        EXPECT_THROW(connection_ >> text, io::ConnectionException);
    }

    void write(int error) {
        interposed::sendError = error;
        EXPECT_THROW(connection_ << "R1R", io::ConnectionException);
    }

private:
    static std::array<int, 2> makePair() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        return ends;
    }

    explicit BrokenPipe(std::array<int, 2> ends)
        : before_(std::signal(SIGPIPE, [](int) { signals = signals + 1; })),
          connection_(ends[0], {}, 3), peer_(ends[1]) {
        signals = 0;
    }

    support::LogCapture capture_;
    void (*before_)(int);
    io::Connection connection_;
    support::Descriptor peer_;
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
