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
    ServerProcess server;
    Client client{server.port()};
};

} // namespace

TEST_F(Protocol, FreshBankIsAllOutputsAndLow) {
    EXPECT_EQ(client.request("A00"), "A0000A");
    EXPECT_EQ(client.request("P00"), "P0000P");
    EXPECT_EQ(client.request("I00"), "I0000I");
    EXPECT_EQ(client.request("O00"), "O0010O");
}

TEST_F(Protocol, WrittenPinReadsBack) {
    EXPECT_EQ(client.request("W31"), "W1W");
    EXPECT_EQ(client.request("R30"), "R1R");
    EXPECT_EQ(client.request("A00"), "A0008A");
    EXPECT_EQ(client.request("W30"), "W1W");
    EXPECT_EQ(client.request("R30"), "R0R");
}

TEST_F(Protocol, OnlyAValueOfOneCountsAsHighInTheMask) {
    EXPECT_EQ(client.request("W37"), "W1W");
    EXPECT_EQ(client.request("R30"), "R1R");
    EXPECT_EQ(client.request("A00"), "A0000A");
}

TEST_F(Protocol, DirectionCanBeSetAndRead) {
    EXPECT_EQ(client.request("S31"), "S1S");
    EXPECT_EQ(client.request("D30"), "D1D");
    EXPECT_EQ(client.request("P00"), "P0008P");
    EXPECT_EQ(client.request("I00"), "I0001I");
    EXPECT_EQ(client.request("O00"), "O000fO");
    EXPECT_EQ(client.request("S30"), "S1S");
    EXPECT_EQ(client.request("D30"), "D0D");
}

TEST_F(Protocol, InputPinCanBeWrittenAllTheSame) {
    EXPECT_EQ(client.request("S31"), "S1S");
    EXPECT_EQ(client.request("W31"), "W1W");
    EXPECT_EQ(client.request("R30"), "R1R");
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
    Client other(server.port());
    EXPECT_EQ(client.request("Wc1"), "W1W");
    EXPECT_EQ(other.request("RC0"), "R1R");
}

TEST_F(Protocol, DebugCommandAnswersTheSameEveryTime) {
    EXPECT_EQ(client.request("B00"), "DBG");
    EXPECT_EQ(client.request("B00"), "DBG");
}

TEST_F(Protocol, InterestCommandsIgnorePinAndValue) {
    EXPECT_EQ(client.request("L99"), "LL");
    EXPECT_EQ(client.request("Kzz"), "KK");
    EXPECT_EQ(client.request("K00"), "KK");
}

TEST_F(Protocol, UnknownCommandIsFramedWithBlanksForItsOwnFrame) {
    for (const std::string command : {"w31", "C00", "X00", "000", "Z00"}) {
        EXPECT_EQ(client.requestError(command), "^ UNKNOWN COMMAND: " + command + " ^");
    }
}

TEST_F(Protocol, ErrorHasNoLineEnd) {
    EXPECT_EQ(client.requestError("Z00"), "^ UNKNOWN COMMAND: Z00 ^");
    EXPECT_EQ(client.request("R00"), "R0R");
}

TEST_F(Protocol, ShortCommandIsInvalid) {
    EXPECT_EQ(client.requestError("W3"), "^INVALLID COMMAND: W3^");
    EXPECT_EQ(client.requestError("W"), "^INVALLID COMMAND: W^");
}

TEST_F(Protocol, CircumflexInACommandBecomesABlank) {
    EXPECT_EQ(client.requestError("^^^"), "^ UNKNOWN COMMAND:     ^");
    EXPECT_EQ(client.requestError("^1"), "^INVALLID COMMAND:  1^");
}

TEST_F(Protocol, LineFeedAfterACommandEndsTheConnection) {
    client.send("W31\n");
    EXPECT_EQ(client.receiveLine(), "W1W");
    EXPECT_TRUE(client.waitForEnd());
}

TEST_F(Protocol, CarriageReturnAndLineFeedAfterACommandAreAnInvalidCommand) {
    client.send("W31\r\n");
    EXPECT_EQ(client.receiveLine(), "W1W");
    EXPECT_EQ(client.receive(21), "^INVALLID COMMAND: \r^");
    EXPECT_EQ(client.request("R30"), "R1R");
}

TEST_F(Protocol, TwoCommandsInOnePacketAreAnsweredInOrder) {
    client.send("W11R10");
    EXPECT_EQ(client.receiveLine(), "W1W");
    EXPECT_EQ(client.receiveLine(), "R1R");
}

TEST_F(Protocol, CommandsSplitAtAnyPlaceAreRejectedPieceByPiece) {
    const std::string commands = "W31";
    for (std::size_t length = 1; length <= commands.size(); ++length) {
        const std::string command = commands.substr(0, length);
        for (std::size_t split = 1; split < length; ++split) {
            for (const std::string& piece : {command.substr(0, split), command.substr(split)}) {
                EXPECT_EQ(client.requestError(piece), "^INVALLID COMMAND: " + piece + "^");
            }
        }
    }
    EXPECT_EQ(client.request("A00"), "A0000A");
}
