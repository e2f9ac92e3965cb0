#include "interposed/SystemCalls.h"
#include "io/ServerSocket.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

class FailedAccept : public testing::Test {
protected:
    ~FailedAccept() override { interposed::acceptError = 0; }

    bool blocksAfter(int error) {
        interposed::acceptError = error;
        EXPECT_EQ(socket.acceptConnection(), nullptr);
        EXPECT_EQ(socket.getState(), io::HANDLING);
        return socket.isAcceptBlocked();
    }

    io::ServerSocket socket{0, 3};
};

} // namespace

TEST_F(FailedAccept, ForWantOfDescriptorsAsksForAPause) {
    EXPECT_TRUE(blocksAfter(EMFILE));
}

TEST_F(FailedAccept, ForWantOfMemoryAsksForAPause) {
    EXPECT_TRUE(blocksAfter(ENOBUFS));
}

TEST_F(FailedAccept, OfAClientThatHasGoneAsksForNone) {
    EXPECT_FALSE(blocksAfter(ECONNABORTED));
}

TEST_F(FailedAccept, ThatASignalInterruptedAsksForNone) {
    EXPECT_FALSE(blocksAfter(EINTR));
}

TEST_F(FailedAccept, OnAClosedSocketAsksForNone) {
    socket.closeSocket();
    EXPECT_FALSE(blocksAfter(0));
}
