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

TEST_F(Protocol, WrittenPinReadsBackOnEveryConnection) {
    Client other(server_.port());
    EXPECT_EQ(client_.request("Wc1"), "W1W");
    EXPECT_EQ(client_.request("Rc0"), "R1R");
    EXPECT_EQ(other.request("RC0"), "R1R");
    EXPECT_EQ(other.request("A00"), "A1000A");
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

TEST_F(Protocol, TwoCommandsInOnePacketAreAnsweredInOrder) {
    client_.send("W11R10");
    EXPECT_EQ(client_.receiveLine(), "W1W");
    EXPECT_EQ(client_.receiveLine(), "R1R");
}
