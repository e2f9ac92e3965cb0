#include "io/Connection.h"

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "io/exception/ConnectionException.h"
#include "support/Descriptor.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/ProcessInfo.h"

using io::Connection;
using support::LogCapture;

namespace {

using Lines = std::vector<std::string>;

constexpr std::size_t READ_LIMIT = 3;
const std::string PEER_NAME = "address:[10.1.2.3], port:[34835]";

sockaddr_in peerAddress() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(5000);
    inet_pton(AF_INET, "10.1.2.3", &address.sin_addr);
    return address;
}

bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

/// A call on a thread of its own that is going to block.
class BlockedCall {
public:
    explicit BlockedCall(std::function<void()> call)
        : thread_([this, call = std::move(call)] {
              id_ = gettid();
              call();
              returned_ = true;
          }) {}
    BlockedCall(const BlockedCall&) = delete;
    BlockedCall& operator=(const BlockedCall&) = delete;
    ~BlockedCall() { thread_.join(); }

    bool waitUntilBlocked() const {
        return support::eventually(
            [this] { return id_ != 0 && support::isAsleep(support::self(), id_); });
    }

    bool waitForReturn() const {
        return support::eventually([this] { return returned_.load(); });
    }

private:
    std::atomic<pid_t> id_ = 0;
    std::atomic<bool> returned_ = false;
    std::thread thread_;
};

/// A connection whose other end the test holds.
class ConnectionTest : public testing::Test {
protected:
    ConnectionTest() : ConnectionTest(makePair()) {}

    void peerSends(const std::string& text) const {
        ASSERT_EQ(write(peer_.number(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }

    std::string peerReceives(std::size_t count) const {
        std::string text(count, '\0');
        const ssize_t got = read(peer_.number(), text.data(), text.size());
        text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return text;
    }

    std::string readOnce() {
        std::string text = "left over";
        connection_ >> text;
        return text;
    }

    std::string readProblem() {
        try {
            readOnce();
        } catch (io::ConnectionException& problem) {
            return problem.getMessage();
        }
        return "nothing was thrown";
    }

    std::string writeProblem(const std::string& text) {
        try {
            connection_ << text;
        } catch (io::ConnectionException& problem) {
            return problem.getMessage();
        }
        return "nothing was thrown";
    }

    LogCapture capture_;
    int descriptor_;
    support::Descriptor peer_;
    Connection connection_;

private:
    static std::array<int, 2> makePair() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        return ends;
    }

    explicit ConnectionTest(std::array<int, 2> ends)
        : descriptor_(ends[0]), peer_(ends[1]), connection_(ends[0], peerAddress(), READ_LIMIT) {}
};

} // namespace

TEST_F(ConnectionTest, OneReadTakesOneCommand) {
    peerSends("W11");
    EXPECT_EQ(readOnce(), "W11");
}

TEST_F(ConnectionTest, ReadTakesAtMostItsLimit) {
    peerSends("W11R0");
    EXPECT_EQ(readOnce(), "W11");
    EXPECT_EQ(readOnce(), "R0");
}

TEST_F(ConnectionTest, ReadTakesWhatIsThere) {
    peerSends("R");
    EXPECT_EQ(readOnce(), "R");
}

TEST_F(ConnectionTest, ReadKeepsLineEnds) {
    peerSends("\r\n");
    EXPECT_EQ(readOnce(), "\r\n");
}

TEST_F(ConnectionTest, ReadStopsAtAZeroByte) {
    peerSends(std::string("A\0B", 3));
    EXPECT_EQ(readOnce(), "A");
}

TEST_F(ConnectionTest, ReadOfALeadingZeroByteIsEmpty) {
    peerSends(std::string("\0AB", 3));
    EXPECT_EQ(readOnce(), "");
}

TEST_F(ConnectionTest, ReadKeepsBytesAbove7F) {
    peerSends("\xff\x80\x7f");
    EXPECT_EQ(readOnce(), "\xff\x80\x7f");
}

TEST_F(ConnectionTest, EndOfTheStreamReadsAsNothing) {
    peer_.reset();
    EXPECT_EQ(readOnce(), "");
    EXPECT_EQ(capture_.output(), "");
    EXPECT_FALSE(connection_.isClosed());
}

TEST_F(ConnectionTest, WritesTheTextAsItIs) {
    connection_ << std::string("U00\0|", 5);
    EXPECT_EQ(peerReceives(100), std::string("U00\0|", 5));
}

TEST_F(ConnectionTest, OperatorsCanBeChained) {
    connection_ << "R1R"
                << "\n";
    EXPECT_EQ(peerReceives(3), "R1R");
    EXPECT_EQ(peerReceives(3), "\n");
}

TEST_F(ConnectionTest, ReadAfterClosingFailsAndNamesThePeer) {
    connection_.closeConnection();
    EXPECT_EQ(readProblem(), "Failed to read from connection");
    EXPECT_EQ(capture_.outputLines(),
              Lines{"[Connection] Failed to read from socket connection to: " + PEER_NAME});
    EXPECT_EQ(capture_.error(), "");
}

TEST_F(ConnectionTest, WriteAfterClosingFailsAndNamesThePeer) {
    connection_.closeConnection();
    EXPECT_EQ(writeProblem("R1R"), "Failed to write to connection");
    EXPECT_EQ(capture_.outputLines(),
              (Lines{"[Connection] Failed to write to socket connection to: " + PEER_NAME,
                     "[Connection] Failed to write to connection"}));
    EXPECT_EQ(capture_.error(), "");
}

TEST_F(ConnectionTest, WriteToAPeerThatHasGoneFailsAndLeavesTheConnectionOpen) {
    peer_.reset();
    EXPECT_EQ(writeProblem("R1R"), "Failed to write to connection");
    EXPECT_EQ(capture_.outputLines().size(), 2U);
    EXPECT_FALSE(connection_.isClosed());
}

TEST_F(ConnectionTest, FailedReadLeavesTheTargetAlone) {
    connection_.closeConnection();
    std::string text = "kept";
    EXPECT_THROW(connection_ >> text, io::ConnectionException);
    EXPECT_EQ(text, "kept");
}

TEST_F(ConnectionTest, ClosingEndsThePeersStream) {
    EXPECT_FALSE(connection_.isClosed());
    connection_.closeConnection();
    EXPECT_TRUE(connection_.isClosed());
    EXPECT_FALSE(isOpen(descriptor_));
    EXPECT_EQ(peerReceives(1), "");
}

TEST_F(ConnectionTest, ClosingTwiceClosesNothingElse) {
    connection_.closeConnection();
    // The system hands out the lowest free number, so this is the one that was closed.
    const support::Descriptor reused(fcntl(peer_.number(), F_DUPFD_CLOEXEC, descriptor_));
    ASSERT_EQ(reused.number(), descriptor_);
    connection_.closeConnection();
    EXPECT_TRUE(isOpen(descriptor_));
}

TEST_F(ConnectionTest, ClosingWakesABlockedRead) {
    std::string outcome;
    const BlockedCall read([&] {
        try {
            outcome = "read [" + readOnce() + "]";
        } catch (io::ConnectionException& problem) {
            outcome = problem.getMessage();
        }
    });
    ASSERT_TRUE(read.waitUntilBlocked());
    connection_.closeConnection();
    ASSERT_TRUE(read.waitForReturn());
    // The wake-up comes before the mark: a reader that is quick sees an end of the stream.
    EXPECT_TRUE(outcome == "Failed to read from connection" || outcome == "read []") << outcome;
    EXPECT_FALSE(isOpen(descriptor_));
}

TEST_F(ConnectionTest, ClosingWakesABlockedWrite) {
    std::string problem;
    const BlockedCall write([&] { problem = writeProblem(std::string(8 << 20, 'x')); });
    ASSERT_TRUE(write.waitUntilBlocked());
    connection_.closeConnection();
    // What was written before counts as a success.
    ASSERT_TRUE(write.waitForReturn());
    EXPECT_FALSE(isOpen(descriptor_));
}

TEST_F(ConnectionTest, TellsThePeersAddress) {
    const sockaddr_in address = connection_.getClientAddress();
    EXPECT_EQ(address.sin_port, htons(5000));
    EXPECT_EQ(address.sin_addr.s_addr, peerAddress().sin_addr.s_addr);
}

TEST(ConnectionLifetime, DestructionClosesTheSocket) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    const support::Descriptor peer(ends[1]);
    { const Connection connection(ends[0], peerAddress(), READ_LIMIT); }
    EXPECT_FALSE(isOpen(ends[0]));
}

TEST(ConnectionLifetime, ReadLimitIsPerConnection) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    const support::Descriptor peer(ends[1]);
    Connection connection(ends[0], peerAddress(), 4);
    ASSERT_EQ(write(peer.number(), "W31\nR", 5), 5);
    std::string text;
    connection >> text;
    EXPECT_EQ(text, "W31\n");
}
