#include "io/ServerSocket.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "interposed/SystemCalls.h"
#include "io/exception/ServerSocketException.h"
#include "support/Eventually.h"
#include "support/Problem.h"

namespace {

class FailedAccept : public testing::Test {
protected:
    ~FailedAccept() override { interposed::acceptError = 0; }

    bool blocksAfter(int error) {
        interposed::acceptError = error;
        EXPECT_EQ(socket_.acceptConnection(), nullptr);
        EXPECT_EQ(socket_.getState(), io::HANDLING);
        return socket_.isAcceptBlocked();
    }

    io::ServerSocket socket_{0, 3};
};

} // namespace

TEST_F(FailedAccept, AsksForAPauseWhereTheNextWouldFailToo) {
    EXPECT_TRUE(blocksAfter(EMFILE));
    EXPECT_TRUE(blocksAfter(ENOBUFS));
    EXPECT_FALSE(blocksAfter(ECONNABORTED)) << "the client has gone";
    EXPECT_FALSE(blocksAfter(EINTR));
}

TEST_F(FailedAccept, OnAClosedSocketAsksForNone) {
    socket_.closeSocket();
    EXPECT_FALSE(blocksAfter(0));
}

// The shutdown already fails the accept, before the socket counts as closed.
TEST(AcceptEndedByAClose, AsksForNoPauseWhileTheCloseIsUnderWay) {
    io::ServerSocket socket(0, 3);
    std::atomic<bool> asked = false;
    std::atomic<bool> blocked = false;
    std::thread acceptor([&] {
        EXPECT_EQ(socket.acceptConnection(), nullptr);
        blocked = socket.isAcceptBlocked();
        asked = true;
    });
    EXPECT_TRUE(support::eventually([&] { return socket.getState() == io::ACCEPTING; }));
    interposed::afterShutdown = [&] {
        EXPECT_TRUE(support::eventually([&] { return socket.getState() == io::HANDLING; }));
        // An answer that does not wait for the close comes within this time.
        support::eventually([&] { return asked.load(); }, std::chrono::milliseconds(200));
    };
    socket.closeSocket();
    acceptor.join();
    EXPECT_FALSE(blocked);
}

TEST(SocketCreation, FailureNamesThePort) {
    interposed::socketError = EMFILE;
    const std::string problem = support::problemOf<io::ServerSocketException>(
        [] { const io::ServerSocket socket(5000, 3); });
    interposed::socketError = 0;
    EXPECT_EQ(problem, "Failed to create ServerSocket on port 5000");
}
