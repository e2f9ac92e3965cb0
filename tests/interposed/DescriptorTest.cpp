#include "support/Descriptor.h"

#include <functional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "interposed/SystemCalls.h"
#include "io/ServerSocket.h"
#include "io/exception/ConnectionException.h"
#include "support/ConnectedPair.h"
#include "support/LogCapture.h"

using support::isOpen;

namespace {

/// A socket is closed as if by another thread, after a call has chosen its descriptor and before
/// the system looks at it. What is opened in that moment must not get the number.
class ClosedInTheMidst : public testing::Test {
protected:
    ~ClosedInTheMidst() override { interposed::inTheMidst = nullptr; }

    void onNextCall(std::function<void()> close) {
        interposed::inTheMidst = [this, close = std::move(close)] {
            close();
            newcomer_ = support::Descriptor(open("/dev/null", O_RDWR | O_CLOEXEC));
        };
    }

    support::LogCapture capture_;
    support::Descriptor newcomer_;
};

class ConnectionClosedInTheMidst : public ClosedInTheMidst {
protected:
    ConnectionClosedInTheMidst() {
        onNextCall([this] { pair_.connection.closeConnection(); });
    }

    void expectNumberKeptUntilTheCallEnded() const {
        EXPECT_NE(newcomer_.number(), -1);
        EXPECT_NE(newcomer_.number(), pair_.descriptor);
        EXPECT_FALSE(isOpen(pair_.descriptor));
        EXPECT_TRUE(isOpen(newcomer_.number()));
    }

    support::ConnectedPair pair_;
};

} // namespace

TEST_F(ConnectionClosedInTheMidst, OfAReadKeepsTheNumber) {
    std::string text;
    EXPECT_THROW(pair_.connection >> text, io::ConnectionException);
    expectNumberKeptUntilTheCallEnded();
}

TEST_F(ConnectionClosedInTheMidst, OfAWriteKeepsTheNumber) {
    EXPECT_THROW(pair_.connection << "R1R", io::ConnectionException);
    expectNumberKeptUntilTheCallEnded();
}

TEST_F(ClosedInTheMidst, OfAnAcceptKeepsTheNumber) {
    int descriptor = -1;
    {
        // The system hands out the lowest free number, so this is the socket's.
        const support::Descriptor lowest(open("/dev/null", O_RDWR | O_CLOEXEC));
        descriptor = lowest.number();
    }
    io::ServerSocket socket(0, 3);
    ASSERT_TRUE(isOpen(descriptor));
    onNextCall([&] { socket.closeSocket(); });
    EXPECT_EQ(socket.acceptConnection(), nullptr);
    EXPECT_NE(newcomer_.number(), -1);
    EXPECT_NE(newcomer_.number(), descriptor);
    EXPECT_FALSE(isOpen(descriptor));
}
