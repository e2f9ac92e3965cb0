#include <string>

#include <gtest/gtest.h>

#include "support/Client.h"
#include "support/ServerProcess.h"

using support::Client;
using support::ServerProcess;

namespace {

/// A server in test mode with one client.
class Protocol : public testing::Test {
protected:
    ServerProcess server_;
    Client client_{server_.port()};
};

} // namespace

TEST_F(Protocol, WrittenPinReadsBack) {
    EXPECT_EQ(client_.request("W31"), "W1W");
    EXPECT_EQ(client_.request("R30"), "R1R");
    EXPECT_EQ(client_.request("A00"), "A0008A");
    EXPECT_EQ(client_.request("W30"), "W1W");
    EXPECT_EQ(client_.request("R30"), "R0R");
}

TEST(ProtocolOfTestMode, ListenersHearOfNoChange) {
    support::ServerOptions options;
    options.arguments = {"--port=0", "--test", "--sleep=1"};
    ServerProcess server(options);
    Client client(server.port());
    EXPECT_EQ(client.request("L00"), "LL");
    EXPECT_EQ(client.request("S31"), "S1S");
    for (int round = 0; round < 100; ++round) {
        ASSERT_EQ(client.request("W31"), "W1W");
        ASSERT_EQ(client.request("W30"), "W1W");
    }
}

TEST_F(Protocol, PinsAreSharedBetweenClients) {
    Client other(server_.port());
    EXPECT_EQ(client_.request("Wc1"), "W1W");
    EXPECT_EQ(other.request("RC0"), "R1R");
}

TEST_F(Protocol, ErrorIsFramedAndHasNoLineEnd) {
    EXPECT_EQ(client_.requestError("Z00"), "^ UNKNOWN COMMAND: Z00 ^");
    EXPECT_EQ(client_.requestError("^1"), "^INVALLID COMMAND:  1^");
    EXPECT_EQ(client_.request("R00"), "R0R");
}

TEST_F(Protocol, LineFeedAfterACommandEndsTheConnection) {
    client_.send("W31\n");
    EXPECT_EQ(client_.receiveLine(), "W1W");
    EXPECT_TRUE(client_.waitForEnd());
}

TEST_F(Protocol, CarriageReturnAndLineFeedAfterACommandAreAnInvalidCommand) {
    client_.send("W31\r\n");
    EXPECT_EQ(client_.receiveLine(), "W1W");
    EXPECT_EQ(client_.receive(21), "^INVALLID COMMAND: \r^");
    EXPECT_EQ(client_.request("R30"), "R1R");
}

TEST_F(Protocol, TwoCommandsInOnePacketAreAnsweredInOrder) {
    client_.send("W11R10");
    EXPECT_EQ(client_.receiveLine(), "W1W");
    EXPECT_EQ(client_.receiveLine(), "R1R");
}
