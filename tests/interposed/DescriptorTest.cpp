#include "support/Descriptor.h"

#include <array>
#include <functional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "interposed/SystemCalls.h"
#include "io/Connection.h"
#include "io/ServerSocket.h"
#include "io/exception/ConnectionException.h"
#include "support/LogCapture.h"

namespace {

bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

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
    ConnectionClosedInTheMidst() : ConnectionClosedInTheMidst(makePair()) {}

    void expectNumberKeptUntilTheCallEnded() const {
        EXPECT_NE(newcomer_.number(), -1);
        EXPECT_NE(newcomer_.number(), descriptor_);
        EXPECT_FALSE(isOpen(descriptor_));
        EXPECT_TRUE(isOpen(newcomer_.number()));
    }

    int descriptor_;
    support::Descriptor peer_;
    io::Connection connection_;

private:
    static std::array<int, 2> makePair() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        return ends;
    }

    explicit ConnectionClosedInTheMidst(std::array<int, 2> ends)
        : descriptor_(ends[0]), peer_(ends[1]), connection_(ends[0], {}, 3) {
        onNextCall([this] { connection_.closeConnection(); });
    }
};

} // namespace

TEST_F(ConnectionClosedInTheMidst, OfAReadKeepsTheNumber) {
    std::string text;
    EXPECT_THROW(connection_ >> text, io::ConnectionException);
    expectNumberKeptUntilTheCallEnded();
}

TEST_F(ConnectionClosedInTheMidst, OfAWriteKeepsTheNumber) {
    EXPECT_THROW(connection_ << "R1R", io::ConnectionException);
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
