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
#include <unistd.h>

#include "support/ConnectedPair.h"
#include "support/Descriptor.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/ProcessInfo.h"

using support::connectionProblem;
using support::isOpen;
using support::LogCapture;

namespace {

using Lines = std::vector<std::string>;

const std::string PEER_NAME = "address:[10.1.2.3], port:[34835]";

sockaddr_in peerAddress() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(5000);
    inet_pton(AF_INET, "10.1.2.3", &address.sin_addr);
    return address;
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

class ConnectionOnASocket : public testing::Test, protected support::ConnectedPair {
protected:
    ConnectionOnASocket() : ConnectedPair(SOCK_STREAM, peerAddress()) {}

    std::string readOnce() {
        text_ = "left over";
        connection >> text_;
        return text_;
    }

    LogCapture capture_;
    std::string text_;
};

} // namespace

TEST_F(ConnectionOnASocket, ReadTakesWhatIsThereUpToAZeroByte) {
    using namespace std::string_literals;
    const std::pair<std::string, std::string> reads[] = {
        {"W11", "W11"}, {"R", "R"},    {"\r\n", "\r\n"},
        {"A\0B"s, "A"}, {"\0AB"s, ""}, {"\xff\x80\x7f", "\xff\x80\x7f"},
    };
    for (const auto& [sent, read] : reads) {
        peerSends(sent);
        EXPECT_EQ(readOnce(), read);
    }
}

TEST_F(ConnectionOnASocket, ReadTakesAtMostItsLimit) {
    peerSends("W11R0");
    EXPECT_EQ(readOnce(), "W11");
    EXPECT_EQ(readOnce(), "R0");
}

TEST_F(ConnectionOnASocket, EndOfTheStreamReadsAsNothing) {
    peer.reset();
    EXPECT_EQ(readOnce(), "");
    EXPECT_EQ(capture_.output(), "");
    EXPECT_FALSE(connection.isClosed());
}

TEST(ConnectionOnAPipe, IsWrittenToAsASocketIs) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const support::Descriptor peer(ends[0]);
    io::Connection connection(ends[1], {}, 3);
    connection << "R1R";
    std::string received(4, '\0');
    EXPECT_EQ(read(peer.number(), received.data(), received.size()), 3);
    EXPECT_STREQ(received.c_str(), "R1R");
}

TEST_F(ConnectionOnASocket, WritesTextsAsTheyAreAndOneAfterTheOther) {
    const std::string text("U00\0|", 5);
    connection << text << "\n";
    EXPECT_EQ(receive(5), text);
    EXPECT_EQ(receive(5), "\n");
}

TEST_F(ConnectionOnASocket, ReadAfterClosingFailsAndNamesThePeerAndLeavesTheTargetAlone) {
    connection.closeConnection();
    EXPECT_EQ(connectionProblem([this] { readOnce(); }), "Failed to read from connection");
    EXPECT_EQ(text_, "left over");
    EXPECT_EQ(capture_.outputLines(),
              Lines{"[Connection] Failed to read from socket connection to: " + PEER_NAME});
    EXPECT_EQ(capture_.error(), "");
}

TEST_F(ConnectionOnASocket, WriteAfterClosingFailsAndNamesThePeer) {
    connection.closeConnection();
    EXPECT_EQ(connectionProblem([this] { connection << "R1R"; }), "Failed to write to connection");
    EXPECT_EQ(capture_.outputLines(),
              (Lines{"[Connection] Failed to write to socket connection to: " + PEER_NAME,
                     "[Connection] Failed to write to connection"}));
    EXPECT_EQ(capture_.error(), "");
}

TEST_F(ConnectionOnASocket, ClosingEndsThePeersStream) {
    EXPECT_FALSE(connection.isClosed());
    connection.closeConnection();
    EXPECT_TRUE(connection.isClosed());
    EXPECT_FALSE(isOpen(descriptor));
    EXPECT_EQ(receive(1), "");
}

TEST_F(ConnectionOnASocket, ClosingTwiceClosesNothingElse) {
    connection.closeConnection();
    // The system hands out the lowest free number, so this is the one that was closed.
    const support::Descriptor reused(fcntl(peer.number(), F_DUPFD_CLOEXEC, descriptor));
    ASSERT_EQ(reused.number(), descriptor);
    connection.closeConnection();
    EXPECT_TRUE(isOpen(descriptor));
}

TEST_F(ConnectionOnASocket, ClosingWakesABlockedRead) {
    std::string outcome;
    const BlockedCall read([&] { outcome = connectionProblem([this] { readOnce(); }); });
    ASSERT_TRUE(read.waitUntilBlocked());
    connection.closeConnection();
    ASSERT_TRUE(read.waitForReturn());
    // The wake-up comes before the mark: a reader that is quick sees an end of the stream.
    EXPECT_TRUE(outcome == "Failed to read from connection" || text_.empty()) << outcome;
    EXPECT_FALSE(isOpen(descriptor));
}

TEST_F(ConnectionOnASocket, ClosingWakesABlockedWrite) {
    const BlockedCall write(
        [this] { connectionProblem([this] { connection << std::string(8 << 20, 'x'); }); });
    ASSERT_TRUE(write.waitUntilBlocked());
    connection.closeConnection();
    // What was written before counts as a success.
    ASSERT_TRUE(write.waitForReturn());
    EXPECT_FALSE(isOpen(descriptor));
}

TEST(ConnectionLifetime, DestructionClosesTheSocket) {
    int descriptor = -1;
    {
        const support::ConnectedPair pair;
        descriptor = pair.descriptor;
        EXPECT_TRUE(isOpen(descriptor));
    }
    EXPECT_FALSE(isOpen(descriptor));
}

TEST(ConnectionLifetime, ReadLimitIsPerConnection) {
    support::ConnectedPair pair(SOCK_STREAM, {}, 4);
    pair.peerSends("W31\nR");
    std::string text;
    pair.connection >> text;
    EXPECT_EQ(text, "W31\n");
}
