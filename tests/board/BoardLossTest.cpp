#include <filesystem>
#include <fstream>
#include <vector>

#include "BoardServer.h"
#include "support/LogLines.h"
#include "support/ProcessInfo.h"

namespace {

using support::Client;

void expectRecovery(BoardServer& served) {
    served.board.waitFor("plugged <= 0");
    served.expectRefusal();
    served.board.command("plug");
    EXPECT_TRUE(served.serves());
}

TEST(BoardLoss, BoardPluggedInAfterTheStartIsFound) {
    BoardServer served({"--unplugged"});
    ASSERT_TRUE(served.server.waitForOutput("retrying to connect in 5 seconds"));
    served.expectRefusal();
    served.board.command("plug");
    EXPECT_TRUE(served.serves());
    EXPECT_GE(served.board.value("requests-K"), 1U) << "slow retries restart the board";
}

TEST(BoardLoss, WhileTheServerWaitsInAccept) {
    ServingBoard served;
    // Nobody else is there for whom its main thread would wait.
    const pid_t server = served.server.pid();
    ASSERT_TRUE(support::eventually([&] { return support::isAsleep(server, server); }));
    served.board.command("unplug");
    ASSERT_TRUE(served.server.waitForError("Closing server-socket (device unavailable)."));
    EXPECT_TRUE(served.server.waitForError("Failed to accept incoming connection."));
    EXPECT_TRUE(served.server.waitForOutput("FTDI disconnected: preparing for reconnection"));
    expectRecovery(served);
}

TEST(BoardLoss, WhileNoAcceptIsPending) {
    const ServingBoard served;
    const std::filesystem::path directory = served.board.getDirectory();
    std::ofstream(directory / "hold-threads").close();
    Client client = served.connect();
    ASSERT_TRUE(support::eventually([&] { return exists(directory / "held"); }));
    served.board.command("unplug");
    EXPECT_TRUE(served.server.waitForOutput("FTDI disconnected: preparing for reconnection"));
    EXPECT_TRUE(served.isListening()) << "nobody is there to close the socket";
    remove(directory / "hold-threads");
    EXPECT_TRUE(client.waitForEnd());
    EXPECT_TRUE(served.server.waitForError("Closing server-socket (device unavailable)."));
    served.expectRefusal();
    EXPECT_EQ(support::countOf("Failed to accept incoming connection.", served.server.error()), 0U);
    served.board.command("plug");
    EXPECT_TRUE(served.serves());
}

TEST(BoardLoss, EndsTheConnectionsOfAllClients) {
    ServingBoard served;
    std::vector<Client> clients;
    for (int index = 0; index < 5; ++index) {
        clients.push_back(served.connect());
        EXPECT_EQ(clients.back().request("I000"), "I0010I");
    }
    served.board.command("unplug");
    for (Client& client : clients) {
        EXPECT_TRUE(client.waitForEnd());
    }
    ASSERT_TRUE(served.server.waitForOutput("Cleanup all ConnectionHandlers - DONE"));
    expectRecovery(served);
}

TEST(BoardLoss, DuringAWrite) {
    ServingBoard served;
    Client client = served.connect();
    served.board.command("unplug-after written 2");
    ASSERT_TRUE(client.send("W011"));
    // The two writes of the answer race with the end of all connections.
    const std::string answer = client.receive(100);
    EXPECT_TRUE(answer == "W0W\n" || answer == "W0W" || answer.empty()) << answer;
    EXPECT_TRUE(served.server.waitForError("[FtdiService] unable to write: "));
    EXPECT_EQ(served.board.value("output-writes"), 0U);
    expectRecovery(served);
}

TEST(BoardLoss, EndsAWriteThatTheBoardHoldsBack) {
    ServingBoard served;
    Client client = served.connect();
    served.board.command("stall writes on");
    ASSERT_TRUE(client.send("W011"));
    served.board.waitFor("pending-writes = 1");
    served.board.command("unplug");
    EXPECT_TRUE(served.server.waitForError("[FtdiService] unable to write: "));
    served.board.command("stall writes off");
    expectRecovery(served);
}

TEST(BoardLoss, DuringABroadcast) {
    ServingBoard served;
    std::vector<Client> listeners;
    for (int index = 0; index < 5; ++index) {
        listeners.push_back(served.connectListener());
    }
    served.board.command("cut 49 01 00 69");
    for (Client& listener : listeners) {
        EXPECT_EQ(listener.receiveLine(), "U2000|2000U");
        EXPECT_TRUE(listener.waitForEnd());
    }
    expectRecovery(served);
}

TEST(BoardLoss, InTheMiddleOfAMessage) {
    ServingBoard served;
    Client listener = served.connectListener();
    served.board.command("cut 49 01");
    EXPECT_TRUE(listener.waitForEnd()) << "half a message reached the listener";
    expectRecovery(served);
}

TEST(BoardLoss, DuringTheFlush) {
    BoardServer served({"--unplugged"}, {}, {"flood max", "unplug-after delivered 400"});
    served.board.command("plug");
    served.board.waitFor("plugged <= 0");
    served.board.command("flood off");
    served.board.command("plug");
    EXPECT_TRUE(served.serves());
    EXPECT_GE(support::countOf("flushed msg I", served.server.output()), 1U);
    EXPECT_LE(support::countOf("flushed -", served.server.output()), 200U);
}

} // namespace
