#include "io/ServerSocket.h"

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "io/exception/ServerSocketException.h"
#include "support/Client.h"
#include "support/Descriptor.h"
#include "support/Eventually.h"
#include "support/Problem.h"
#include "support/ProcessInfo.h"
#include "support/ReservedPort.h"

using io::ServerSocket;
using support::Client;
using support::ReservedPort;

namespace {

constexpr std::size_t PROTOCOL_SIZE = 3;

std::string constructionProblem(int port) {
    return support::problemOf<io::ServerSocketException>(
        [port] { const ServerSocket socket(port, PROTOCOL_SIZE); });
}

int optionOf(int descriptor, int level, int option) {
    int value = -1;
    socklen_t length = sizeof(value);
    getsockopt(descriptor, level, option, &value, &length);
    return value;
}

/// The server's end of a client's connection; -1 when there is none.
int serverEndOf(const Client& client) {
    for (const int descriptor : support::descriptors(support::self())) {
        sockaddr_in peer{};
        socklen_t length = sizeof(peer);
        if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            peer.sin_port == htons(client.localPort())) {
            return descriptor;
        }
    }
    return -1;
}

class ListeningSocket : public testing::Test {
protected:
    ReservedPort port_;
    ServerSocket socket_{port_.number(), PROTOCOL_SIZE};
};

} // namespace

TEST_F(ListeningSocket, ListensFromConstructionOn) {
    EXPECT_EQ(socket_.getState(), io::DEFAULT);
    EXPECT_FALSE(socket_.isClosed());
    EXPECT_EQ(support::listeningPort(support::self()), port_.number());
}

TEST_F(ListeningSocket, SecondSocketOnTheSamePortIsRefused) {
    EXPECT_EQ(constructionProblem(port_.number()),
              "Failed to bind ServerSocket on port " + std::to_string(port_.number()));
}

TEST_F(ListeningSocket, StateFollowsAnAccept) {
    std::unique_ptr<io::Connection> accepted;
    std::thread acceptor([&] { accepted.reset(socket_.acceptConnection()); });
    EXPECT_TRUE(support::eventually([&] { return socket_.getState() == io::ACCEPTING; }));
    const Client client(port_.number());
    acceptor.join();
    EXPECT_EQ(socket_.getState(), io::HANDLING);
    ASSERT_NE(accepted, nullptr);
    EXPECT_EQ(accepted->getClientAddress().sin_port, htons(client.localPort()));
    EXPECT_FALSE(socket_.isAcceptBlocked());
}

TEST_F(ListeningSocket, AcceptedConnectionReadsAtMostTheProtocolSize) {
    Client client(port_.number());
    const std::unique_ptr<io::Connection> accepted(socket_.acceptConnection());
    client.send("W31R30");
    std::string text;
    *accepted >> text;
    EXPECT_EQ(text, "W31");
}

TEST_F(ListeningSocket, ClosingEndsAnAcceptUnderWay) {
    io::Connection* accepted = nullptr;
    std::thread acceptor([&] { accepted = socket_.acceptConnection(); });
    EXPECT_TRUE(support::eventually([&] { return socket_.getState() == io::ACCEPTING; }));
    socket_.closeSocket();
    acceptor.join();
    EXPECT_EQ(accepted, nullptr);
    EXPECT_TRUE(socket_.isClosed());
    EXPECT_FALSE(socket_.isAcceptBlocked());
    EXPECT_EQ(support::listeningPort(support::self()), std::nullopt);
}

TEST_F(ListeningSocket, AcceptAfterClosingFailsAtOnce) {
    socket_.closeSocket();
    EXPECT_EQ(socket_.getState(), io::CLOSED);
    EXPECT_EQ(socket_.acceptConnection(), nullptr);
    EXPECT_EQ(socket_.getState(), io::HANDLING);
    EXPECT_TRUE(socket_.isClosed());
}

TEST(ServerSocketClosing, HappensOnceHoweverOftenItIsAskedFor) {
    const auto openAny = [] { return support::Descriptor(open("/dev/null", O_RDWR | O_CLOEXEC)); };
    // The system hands out the lowest free number, so this becomes the socket's.
    const int number = openAny().number();
    std::optional<ServerSocket> socket(std::in_place, 0, PROTOCOL_SIZE);
    socket->closeSocket();
    const support::Descriptor reused = openAny();
    ASSERT_EQ(reused.number(), number);
    socket->closeSocket();
    EXPECT_TRUE(support::isOpen(number));
    socket.reset();
    EXPECT_TRUE(support::isOpen(number)) << "closed by the destructor";
}

TEST_F(ListeningSocket, PortCanBeBoundAgainWhileOldClientsAreClosing) {
    {
        Client client(port_.number());
        const std::unique_ptr<io::Connection> accepted(socket_.acceptConnection());
        accepted->closeConnection();
    }
    socket_.closeSocket();
    EXPECT_EQ(constructionProblem(port_.number()), "nothing was thrown");
}

TEST_F(ListeningSocket, AcceptedClientsInheritTheirTimeOuts) {
    const Client client(port_.number());
    const std::unique_ptr<io::Connection> accepted(socket_.acceptConnection());
    const int descriptor = serverEndOf(client);
    EXPECT_EQ(optionOf(descriptor, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(optionOf(descriptor, IPPROTO_TCP, TCP_KEEPIDLE), 60);
    EXPECT_EQ(optionOf(descriptor, IPPROTO_TCP, TCP_KEEPINTVL), 10);
    EXPECT_EQ(optionOf(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT), 30000);
    EXPECT_EQ(optionOf(descriptor, IPPROTO_TCP, TCP_NODELAY), 1);
}

TEST(ServerSocketConstruction, OfAPortBeyondSixteenBitsTheLowSixteenCount) {
    const ReservedPort port;
    const ServerSocket socket(port.number() + 65536, PROTOCOL_SIZE);
    EXPECT_EQ(support::listeningPort(support::self()), port.number());
    EXPECT_EQ(constructionProblem(port.number() + 65536),
              "Failed to bind ServerSocket on port " + std::to_string(port.number() + 65536));
}

TEST(ServerSocketConstruction, PortZeroLetsTheSystemChoose) {
    const ServerSocket socket(0, PROTOCOL_SIZE);
    EXPECT_NE(support::listeningPort(support::self()).value_or(0), 0);
}

TEST(ServerSocketConstruction, DestructionClosesTheSocket) {
    const std::size_t before = support::descriptorCount(support::self());
    { const ServerSocket socket(0, PROTOCOL_SIZE); }
    EXPECT_EQ(support::descriptorCount(support::self()), before);
}
