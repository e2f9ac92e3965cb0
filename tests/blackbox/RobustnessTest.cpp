#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/Client.h"
#include "support/Descriptor.h"
#include "support/Eventually.h"
#include "support/LogLines.h"
#include "support/ProcessInfo.h"
#include "support/Scale.h"
#include "support/ServerProcess.h"

using support::BrokenPipe;
using support::Client;
using support::eventually;
using support::ServerOptions;
using support::ServerProcess;
using support::Stream;

namespace {

constexpr int CLIENTS_AT_ONCE = support::rounds(500, 200);
constexpr int CLIENTS_IN_TURN = support::rounds(10000, 1000);
constexpr int RESET_CLIENTS = support::rounds(10000, 1000);

/// What a server uses while nobody is connected.
struct BaseLine {
    explicit BaseLine(const ServerProcess& server)
        : threads(support::threadCount(server.pid())),
          descriptors(support::descriptorCount(server.pid())) {}

    std::size_t threads;
    std::size_t descriptors;
};

/// A server that has served one client already, so that all it makes once exists.
std::uint16_t warmUp(ServerProcess& server) {
    const std::uint16_t port = server.port();
    std::size_t serving = 0;
    {
        Client client(port);
        client.request("R00");
        serving = support::threadCount(server.pid());
    }
    EXPECT_TRUE(server.waitForOutput("Freed memory of Connection"));
    // The thread that said so has yet to end.
    EXPECT_TRUE(eventually([&] { return support::threadCount(server.pid()) < serving; }));
    return port;
}

void expectBaseLine(const ServerProcess& server, const BaseLine& before) {
    // When more clients come than the backlog holds, the farewell of one can get lost: its
    // connection then has no peer, and the server's keep-alive ends it after a minute.
    constexpr std::chrono::seconds KEEP_ALIVE(60);
    const auto isBack = [&] {
        return support::threadCount(server.pid()) == before.threads &&
               support::descriptorCount(server.pid()) == before.descriptors;
    };
    EXPECT_TRUE(eventually(isBack, KEEP_ALIVE + support::PATIENCE))
        << support::threadCount(server.pid()) << " threads instead of " << before.threads << ", "
        << support::descriptorCount(server.pid()) << " descriptors instead of "
        << before.descriptors;
}

void expectServing(std::uint16_t port) {
    EXPECT_EQ(Client(port).request("B00"), "DBG");
}

/// Clients that knock until the object goes.
class Crowd {
public:
    Crowd(std::uint16_t port, int count) {
        for (int number = 0; number < count; ++number) {
            clients_.emplace_back([this, port] {
                while (!leave_) {
                    knock(port);
                }
            });
        }
    }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;
    ~Crowd() {
        leave_ = true;
        for (std::thread& client : clients_) {
            client.join();
        }
    }

private:
    /// Stays for as long as the server lets it.
    void knock(std::uint16_t port) const {
        try {
            Client client(port, 0, std::chrono::seconds(1));
            while (!leave_ && !client.waitForEnd(std::chrono::milliseconds(100))) {
            }
        } catch (std::runtime_error&) {
            return; // There was no room for it.
        }
    }

    std::atomic<bool> leave_ = false;
    std::vector<std::thread> clients_;
};

/// Watches a server in want of something for three seconds: it must go on serving, and neither
/// fill its log nor burn the processor.
void expectOneFailureEachTenthOfASecond(const ServerProcess& server, Client& served,
                                        std::string_view complaint) {
    using Clock = std::chrono::steady_clock;
    const auto began = Clock::now();
    const double usedBefore = support::processorSeconds(server.pid());
    const std::size_t linesBefore = support::countOf(complaint, server.error());
    while (Clock::now() - began < std::chrono::seconds(3)) {
        EXPECT_EQ(served.request("R00"), "R0R");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const std::chrono::duration<double> passed = Clock::now() - began;
    const std::size_t lines = support::countOf(complaint, server.error()) - linesBefore;
    EXPECT_LE(static_cast<double>(lines), passed.count() * 10 + 1);
    EXPECT_LT(support::processorSeconds(server.pid()) - usedBefore, passed.count() / 2);
}

/// More clients come than a limit of the system lets the server serve.
void meetShortage(std::pair<__rlimit_resource_t, rlim_t> limit, const std::string& complaint) {
    ServerOptions options;
    options.limits = {limit};
    ServerProcess server(options);
    const std::uint16_t port = warmUp(server);
    Client served(port);
    ASSERT_EQ(served.request("R00"), "R0R");
    const BaseLine before(server);
    {
        const Crowd crowd(port, 200);
        EXPECT_TRUE(server.waitForError(complaint));
        expectOneFailureEachTenthOfASecond(server, served, complaint);
    }
    expectServing(port);
    expectBaseLine(server, before);
}

} // namespace

TEST(ManyClients, AreServedAtOnce) {
    ServerProcess server;
    const std::uint16_t port = warmUp(server);
    const BaseLine before(server);
    {
        std::vector<std::unique_ptr<Client>> clients;
        for (int number = 0; number < CLIENTS_AT_ONCE; ++number) {
            clients.push_back(std::make_unique<Client>(port));
            ASSERT_EQ(clients.back()->request("W31"), "W1W") << number;
        }
        for (const std::unique_ptr<Client>& client : clients) {
            client->send("R30");
        }
        for (const std::unique_ptr<Client>& client : clients) {
            ASSERT_EQ(client->receiveLine(), "R1R");
        }
    }
    expectBaseLine(server, before);
    expectServing(port);
}

TEST(ManyClients, AreServedOneAfterAnother) {
    ServerProcess server;
    const std::uint16_t port = warmUp(server);
    const BaseLine before(server);
    for (int number = 0; number < CLIENTS_IN_TURN; ++number) {
        ASSERT_EQ(Client(port).request(number % 2 == 0 ? "W31" : "A00"),
                  number % 2 == 0 ? "W1W" : "A0008A")
            << number;
    }
    expectBaseLine(server, before);
}

TEST(BrokenPipeSignal, IgnoredItLetsTheServerSurviveResets) {
    ServerProcess server;
    const std::uint16_t port = warmUp(server);
    const BaseLine before(server);
    constexpr int AT_ONCE = 20;
    std::vector<std::thread> crowd;
    for (unsigned number = 0; number < AT_ONCE; ++number) {
        crowd.emplace_back([port, number] {
            std::minstd_rand random(number + 1);
            for (int round = 0; round < RESET_CLIENTS / AT_ONCE; ++round) {
                try {
                    Client client(port);
                    client.send(std::string("L00W31R30Z00").substr(0, random() % 13));
                    std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
                    client.reset();
                } catch (std::runtime_error& problem) {
                    ADD_FAILURE() << problem.what();
                }
            }
        });
    }
    for (std::thread& client : crowd) {
        client.join();
    }
    expectServing(port);
    expectBaseLine(server, before);
    EXPECT_TRUE(server.isRunning());
    // Some of the resets did meet an answer on its way out.
    EXPECT_NE(server.error().find("Exception caught! [Failed to write to connection]"),
              std::string::npos);
}

TEST(BrokenPipeSignal, InheritedDefaultEndsTheServer) {
    ServerOptions options;
    options.brokenPipe = BrokenPipe::Default;
    ServerProcess server(options);
    const std::uint16_t port = server.port();
    constexpr int ATTEMPTS = 500;
    for (int attempt = 0; attempt < ATTEMPTS && server.isRunning(); ++attempt) {
        try {
            Client client(port, 0, std::chrono::milliseconds(200));
            client.send("R00R00R00R00");
            client.close();
        } catch (std::runtime_error&) {
            continue;
        }
    }
    EXPECT_EQ(server.waitForEnd(), -SIGPIPE);
}

TEST(BadInput, EveryByteInEveryPositionLeavesTheServerServing) {
    ServerProcess server;
    const std::uint16_t port = server.port();
    for (std::size_t position = 0; position < 3; ++position) {
        for (int code = 0; code < 256; ++code) {
            std::string command = "W31";
            command[position] = static_cast<char>(code);
            Client client(port);
            client.send(command);
            client.finishSending();
            // An answer or an error text; nothing when a zero byte leads.
            const std::string answer = client.receive(64);
            EXPECT_EQ(answer.empty(), code == 0 && position == 0) << position << " " << code;
        }
    }
    expectServing(port);
}

TEST(Descriptors, TooFewOfThemDelayNewClientsButNotTheServedOnes) {
    meetShortage({RLIMIT_NOFILE, 64}, "[GpioServer] Failed to accept incoming connection.\n");
}

TEST(Threads, TooFewOfThemEndNewClientsButNotTheServedOnes) {
    if (support::SANITIZED) {
        GTEST_SKIP() << "a sanitizer needs more address space than the test grants";
    }
    if (support::EMULATED) {
        GTEST_SKIP() << "the emulator takes the address space of its program for its own";
    }
    constexpr rlim_t ROOM_FOR_A_FEW_STACKS = rlim_t{100} << 20;
    meetShortage({RLIMIT_AS, ROOM_FOR_A_FEW_STACKS},
                 "Failed to set thread name to 'GPIO Connection Handler'.[11]\n");
}

TEST(LogStreams, ClosedOutputGivesNoSocketItsNumber) {
    if (support::EMULATED) {
        GTEST_SKIP() << "the emulator opens its own files in place of closed streams";
    }
    ServerOptions options;
    options.input = Stream::closed();
    options.output = Stream::closed();
    options.error = Stream::closed();
    ServerProcess server(options);
    Client client(server.port());
    EXPECT_EQ(client.request("W31"), "W1W");
    for (int stream = 0; stream <= STDERR_FILENO; ++stream) {
        std::array<char, 64> target{};
        const std::string link =
            "/proc/" + std::to_string(server.pid()) + "/fd/" + std::to_string(stream);
        EXPECT_GT(readlink(link.c_str(), target.data(), target.size() - 1), 0);
        EXPECT_STREQ(target.data(), "/dev/null");
    }
    EXPECT_EQ(client.request("R30"), "R1R");
}

TEST(LogStreams, FullDeviceStopsNobody) {
    ServerOptions options;
    options.output = Stream::to("/dev/full");
    options.error = Stream::to("/dev/full");
    ServerProcess server(options);
    Client client(server.port());
    EXPECT_EQ(client.request("W31"), "W1W");
    EXPECT_EQ(client.requestError("Z00"), "^ UNKNOWN COMMAND: Z00 ^");
    expectServing(server.port());
}

TEST(LogStreams, VanishedReaderStopsNobody) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    support::Descriptor reader(ends[0]);
    support::Descriptor writer(ends[1]);
    ServerOptions options;
    options.output = Stream::on(writer.number());
    options.error = Stream::on(writer.number());
    ServerProcess server(options);
    writer.reset();
    Client client(server.port());
    reader.reset();
    EXPECT_EQ(client.request("W31"), "W1W");
    EXPECT_EQ(client.requestError("Z00"), "^ UNKNOWN COMMAND: Z00 ^");
    expectServing(server.port());
}
