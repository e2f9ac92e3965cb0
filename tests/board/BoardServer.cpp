#include "BoardServer.h"

#include <cerrno>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "support/ProcessInfo.h"

namespace {

/// Prepares the board for a server with the options that are returned.
support::ServerOptions prepared(const support::VirtualBoard& board,
                                const support::ReservedPort& port,
                                const std::vector<std::string>& arguments,
                                const std::vector<std::string>& commands,
                                const std::vector<std::string>& environment) {
    board.command("restart drop 50");
    for (const std::string& command : commands) {
        board.command(command);
    }
    support::ServerOptions options;
    options.arguments = {"--port=" + std::to_string(port.number()), "--ftdi"};
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    options.environment = environment;
    for (const std::string& setting : board.environment()) {
        options.environment.push_back(
            setting.starts_with("LD_PRELOAD=") ? setting + ":" SHORT_SLEEPS_LIBRARY : setting);
    }
    return options;
}

std::unique_ptr<SimulatedPart> wantedPart() {
    return SimulatedPart::isWanted() ? std::make_unique<SimulatedPart>() : nullptr;
}

std::vector<std::string> withPart(const std::unique_ptr<SimulatedPart>& part,
                                  std::vector<std::string> options) {
    if (part) {
        const std::vector<std::string> more = part->boardOptions();
        options.insert(options.begin(), more.begin(), more.end());
    }
    return options;
}

/// What a client gets that tries once; 0 when it is connected.
int connectError(std::uint16_t port) {
    const support::Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
                   0
               ? 0
               : errno;
}

} // namespace

BoardServer::BoardServer(const std::vector<std::string>& boardOptions,
                         const std::vector<std::string>& serverArguments,
                         const std::vector<std::string>& firstCommands,
                         const std::vector<std::string>& environment)
    : part(wantedPart()), board(withPart(part, boardOptions)),
      server(prepared(board, port, serverArguments, firstCommands, environment)) {}

support::Client BoardServer::connectListener() {
    support::Client client = connect();
    EXPECT_EQ(client.request("L000"), "LL");
    EXPECT_TRUE(server.waitForOutput("Resume PinStateMonitor.", ++listeners_));
    return client;
}

void BoardServer::waitUntilServing(std::size_t times) const {
    ASSERT_TRUE(server.waitForOutput("Device is ready for actual use", times));
    ASSERT_TRUE(server.waitForOutput("Launch was successful.", times));
}

bool BoardServer::isListening() const {
    return support::listeningPort(server.pid()).has_value();
}

void BoardServer::expectRefusal() const {
    EXPECT_TRUE(support::eventually([&] { return !isListening(); }));
    EXPECT_EQ(connectError(port.number()), ECONNREFUSED);
}

void BoardServer::comeBack() {
    board.command("unplug");
    expectRefusal();
    board.command("plug");
}

testing::AssertionResult BoardServer::serves() const {
    support::Client client = connect();
    const std::string answer = client.request("I000");
    if (answer == "I0010I") {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "the answer was \"" << answer << '"';
}
