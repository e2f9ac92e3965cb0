#include "GpioServer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "exception/CommandException.h"
#include "io/ServerSocket.h"
#include "io/exception/ServerSocketException.h"
#include "log/Identity.h"
#include "support/Client.h"
#include "support/Eventually.h"
#include "support/Fakes.h"
#include "support/LogCapture.h"
#include "support/LogLines.h"
#include "support/ProcessInfo.h"
#include "support/ServingServer.h"

using support::Client;
using support::eventually;
using support::FakeDevice;
using support::FakeMonitor;
using support::LogCapture;
using support::messageOfLaunch;
using support::ServingServer;

namespace {

using Lines = std::vector<std::string>;

class Server : public testing::Test {
protected:
    void SetUp() override {
        serving_.launch();
        ASSERT_TRUE(serving_.waitUntilListening());
        ASSERT_TRUE(capture_.waitForOutput("Launch was successful.\n"));
        ASSERT_TRUE(waitUntilAccepting(0));
    }

    /// The server asks for its device before it listens, before each accept and after it. Once it
    /// has asked before the accept that follows `clients` clients, its next question comes after
    /// the next client.
    bool waitUntilAccepting(int clients) {
        return eventually(
            [this, clients] { return serving_.device->timesAsked() == 2 + 2 * clients; });
    }

    /// A client whose handler is known to be serving.
    std::unique_ptr<Client> served(const std::string& command = "R00",
                                   const std::string& answer = "R0R") {
        auto client = std::make_unique<Client>(serving_.port.number());
        EXPECT_EQ(client->request(command), answer);
        return client;
    }

    std::unique_ptr<Client> listener() { return served("L00", "LL"); }

    void failAtNextQuestion() {
        serving_.device->setAvailability([failed = std::make_shared<bool>(false)]() -> BOOL {
            if (!std::exchange(*failed, true)) {
                throw io::ServerSocketException("worn out");
            }
            return 1;
        });
    }

    /// The client's handler hangs in a command until it may go on.
    void keepBusy(Client& client) {
        serving_.device->setBeforeCommand([this](const std::string& command) {
            if (command == "Rf0") {
                busy_ = true;
                eventually([this] { return mayGoOn_.load(); });
            }
        });
        client.send("Rf0");
        EXPECT_TRUE(eventually([this] { return busy_.load(); }));
    }

    std::size_t outputCount(const std::string& text) const {
        return support::countOf(text, capture_.output());
    }

    LogCapture capture_;
    std::atomic<bool> busy_ = false;
    std::atomic<bool> mayGoOn_ = false;
    ServingServer serving_;
};

const std::string PAUSE_LINE = "[GpioServer] Pause PinStateMonitor.\n";
const std::string RESUME_LINE = "[GpioServer] Resume PinStateMonitor.\n";
const std::string ENDED_LINE = "] was ended.\n";
const std::string FREED_LINE = "[GpioServer] Freed memory of Connection [";

} // namespace

TEST(UnconfiguredServer, IsRefusedWithoutHandlerOrMonitor) {
    const LogCapture capture;
    GpioServer withoutBoth(0);
    EXPECT_EQ(messageOfLaunch(withoutBoth), "GpioServer not correctly configured.");
    GpioServer withoutHandler(0);
    withoutHandler.setPinStateMonitor(new FakeMonitor(nullptr, false));
    EXPECT_EQ(messageOfLaunch(withoutHandler), "GpioServer not correctly configured.");
    GpioServer withoutMonitor(0);
    withoutMonitor.setCommandHandler(new FakeDevice);
    EXPECT_EQ(messageOfLaunch(withoutMonitor), "GpioServer not correctly configured.");
    EXPECT_EQ(capture.outputLines(), Lines(3, "[GpioServer] Launching GPIO Server... "));
    EXPECT_EQ(capture.error(), "");
}

TEST(UnconfiguredServer, KeepsWhatItIsGivenAndBecomesTheListener) {
    GpioServer server(4711);
    EXPECT_EQ(server.getPortNumber(), 4711);
    EXPECT_EQ(server.getCommandHandler(), nullptr);
    EXPECT_EQ(server.getPinStateMonitor(), nullptr);
    auto* const device = new FakeDevice;
    auto* const monitor = new FakeMonitor(device, false);
    EXPECT_TRUE(monitor->isPaused());
    server.setCommandHandler(device);
    server.setPinStateMonitor(monitor);
    EXPECT_EQ(server.getCommandHandler(), device);
    EXPECT_EQ(server.getPinStateMonitor(), monitor);
    EXPECT_FALSE(monitor->isPaused()) << "nobody listens";
}

TEST(ClosingTheServerSocket, ClosesTheGivenOneAndOfNoneIsHarmless) {
    io::ServerSocket socket(0, 3);
    GpioServer::closeServerSocket(&socket);
    EXPECT_EQ(socket.getState(), io::CLOSED);
    EXPECT_NO_THROW(GpioServer::closeServerSocket(nullptr));
}

TEST(ServerLaunch, OnAPortInUseThrowsTheSocketsException) {
    const LogCapture capture;
    const io::ServerSocket other(0, 3);
    const int taken = support::listeningPort(support::self()).value_or(0);
    GpioServer server(taken);
    server.setCommandHandler(new FakeDevice);
    server.setPinStateMonitor(new FakeMonitor(nullptr, false));
    EXPECT_EQ(messageOfLaunch(server),
              "socket: Failed to bind ServerSocket on port " + std::to_string(taken));
    EXPECT_EQ(capture.outputLines().back(), "[GpioServer] Starting to create ServerSocket");
}

TEST(ServerLaunch, WithoutDeviceAsksForItOnceASecondAndListensToNobody) {
    const LogCapture capture;
    ServingServer serving;
    serving.device->setAvailable(false);
    const auto began = std::chrono::steady_clock::now();
    serving.launch();
    ASSERT_TRUE(eventually([&] { return serving.device->timesAsked() >= 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::seconds(2));
    EXPECT_EQ(support::listeningPort(support::self()), std::nullopt);
    EXPECT_EQ(capture.outputLines(), Lines{"[GpioServer] Launching GPIO Server... "});
    serving.device->setAvailable(true);
    EXPECT_TRUE(serving.waitUntilListening());
}

TEST_F(Server, LifeOfAClientIsLoggedInOrder) {
    const std::size_t before = capture_.outputLines().size();
    const std::unique_ptr<Client> client = served();
    const std::string port = std::to_string(htons(client->localPort()));
    client->close();
    ASSERT_TRUE(capture_.waitForOutput(FREED_LINE));
    const std::string identity =
        support::numberAfter("Launching connectionHandler for [", capture_.output());
    const Lines all = capture_.outputLines();
    EXPECT_EQ(Lines(all.begin() + static_cast<std::ptrdiff_t>(before), all.end()),
              (Lines{"[GpioServer] Launching connectionHandler for [" + identity +
                         "], address:[127.0.0.1], port:[" + port + "]",
                     "[GpioServer] Device is available, starting GpioConnectionHandler...",
                     "[GpioServer] Connection [" + identity + "] was ended.",
                     "[GpioServer] Pause PinStateMonitor.",
                     "[GpioServer] Freed memory of Connection [" + identity + "]."}));
    EXPECT_EQ(capture_.error(), "");
}

TEST_F(Server, ChangeMessageReachesOnlyListeningClients) {
    const std::unique_ptr<Client> deaf = served();
    const std::unique_ptr<Client> withdrawn = listener();
    EXPECT_EQ(withdrawn->request("K00"), "KK");
    const std::unique_ptr<Client> listening = listener();
    serving_.server.pinStateChanged("U0008|0008U");
    EXPECT_EQ(listening->receiveLine(), "U0008|0008U");
    for (Client* const client : {deaf.get(), withdrawn.get(), listening.get()}) {
        EXPECT_EQ(client->request("R00"), "R0R");
    }
}

TEST_F(Server, InterestResumesTheMonitor) {
    serving_.monitor->start();
    serving_.monitor->pause();
    const std::unique_ptr<Client> client = listener();
    EXPECT_FALSE(serving_.monitor->isPaused());
}

TEST_F(Server, FoundListenerIsLoggedBeforeTheResume) {
    const std::unique_ptr<Client> client = listener();
    const Lines lines = capture_.outputLines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2],
              "[GpioServer] Found a listening connection, returning [true]");
    EXPECT_EQ(lines.back(), "[GpioServer] Resume PinStateMonitor.");
}

TEST_F(Server, LastWithdrawalNeitherPausesNorLogsButTheDisconnectionDoes) {
    serving_.monitor->start();
    const std::unique_ptr<Client> client = listener();
    const std::string before = capture_.output();
    EXPECT_EQ(client->request("K00"), "KK");
    EXPECT_EQ(capture_.output(), before);
    EXPECT_FALSE(serving_.monitor->isPaused());
    client->close();
    ASSERT_TRUE(capture_.waitForOutput(FREED_LINE));
    EXPECT_EQ(outputCount(PAUSE_LINE), 1U);
    EXPECT_TRUE(serving_.monitor->isPaused());
}

TEST_F(Server, WithdrawalWhileAnotherListensIsLoggedAsInterestIs) {
    const std::unique_ptr<Client> staying = listener();
    const std::unique_ptr<Client> leaving = listener();
    EXPECT_EQ(leaving->request("K00"), "KK");
    EXPECT_EQ(outputCount(RESUME_LINE), 3U);
}

TEST_F(Server, ListenerThatLeavesAnotherDoesNotPause) {
    serving_.monitor->start();
    const std::unique_ptr<Client> staying = listener();
    const std::unique_ptr<Client> leaving = listener();
    leaving->close();
    ASSERT_TRUE(capture_.waitForOutput(FREED_LINE));
    EXPECT_EQ(outputCount(PAUSE_LINE), 0U);
    EXPECT_FALSE(serving_.monitor->isPaused());
}

TEST_F(Server, EveryEndAfterWhichNobodyListensPauses) {
    for (std::size_t count = 1; count <= 3; ++count) {
        served()->close();
        ASSERT_TRUE(capture_.waitForOutput(FREED_LINE, count));
        EXPECT_EQ(outputCount(PAUSE_LINE), count);
    }
}

TEST_F(Server, BroadcastToAFailedClientIsLoggedAndTheOthersGetTheirs) {
    const std::unique_ptr<Client> first = listener();
    const std::unique_ptr<Client> failing = listener();
    const std::unique_ptr<Client> last = listener();
    // The failing client's handler is kept busy, so that it stays registered when it has gone.
    keepBusy(*failing);
    failing->reset();
    const std::string reason = "Failed to send response to client. Reason: "
                               "Failed to write to connection";
    EXPECT_TRUE(eventually([&] {
        serving_.server.pinStateChanged("U0008|0008U");
        return capture_.error().find(reason) != std::string::npos;
    }));
    EXPECT_EQ(capture_.errorLines().front(), "[GpioServer] " + reason);
    EXPECT_EQ(first->receiveLine(), "U0008|0008U");
    EXPECT_EQ(last->receiveLine(), "U0008|0008U");
    mayGoOn_ = true;
    EXPECT_TRUE(capture_.waitForOutput(FREED_LINE));
}

TEST_F(Server, StuckListenersAreWaitedForTogetherAndDropped) {
    // More than the buffers on the way to a client hold.
    const std::string message(32 << 20, 'U');
    std::vector<std::unique_ptr<Client>> stuck;
    for (int number = 0; number < 10; ++number) {
        stuck.push_back(listener());
    }
    const std::unique_ptr<Client> reading = listener();
    std::string received;
    std::thread reader([&] { received = reading->receive(message.size() + 1); });
    const auto began = std::chrono::steady_clock::now();
    serving_.server.pinStateChanged(message);
    const auto held = std::chrono::steady_clock::now() - began;
    reader.join();
    EXPECT_TRUE(received == message + "\n");
    EXPECT_GE(held, std::chrono::seconds(2));
    EXPECT_LT(held, std::chrono::seconds(4)); // what two cost one after the other
    EXPECT_EQ(support::countOf("Failed to send response to client. Reason: "
                               "Failed to write to connection\n",
                               capture_.error()),
              10U);
    EXPECT_TRUE(capture_.waitForOutput(FREED_LINE, 10));
    serving_.server.pinStateChanged("U0008|0008U");
    EXPECT_EQ(reading->receiveLine(), "U0008|0008U");
}

TEST_F(Server, DeviceLostDuringAnAcceptDropsEverybodyAndWaits) {
    const std::unique_ptr<Client> first = served();
    const std::unique_ptr<Client> second = listener();
    ASSERT_TRUE(waitUntilAccepting(2));
    serving_.monitor->start();
    serving_.loseDevice();
    EXPECT_TRUE(first->waitForEnd());
    EXPECT_TRUE(second->waitForEnd());
    ASSERT_TRUE(capture_.waitForOutput("Cleanup all ConnectionHandlers - DONE\n"));
    EXPECT_EQ(support::listeningPort(support::self()), std::nullopt);
    EXPECT_TRUE(serving_.monitor->isPaused());
    const Lines errors = capture_.errorLines();
    ASSERT_GE(errors.size(), 2U);
    EXPECT_EQ(errors[0], "[GpioServer] Failed to accept incoming connection.");
    EXPECT_EQ(errors[1], "[GpioServer] Closing server-socket (device unavailable).");
    // The clean-up is logged around the ends of the connections.
    const std::string log = capture_.output();
    const std::size_t begin = log.find("[GpioServer] Cleanup all ConnectionHandlers...\n");
    const std::size_t done = log.find("[GpioServer] Cleanup all ConnectionHandlers - DONE\n");
    ASSERT_NE(begin, std::string::npos);
    EXPECT_EQ(support::countOf(ENDED_LINE, log.substr(begin, done - begin)), 2U);
}

TEST_F(Server, DeviceThatReturnsIsServedOnTheSamePort) {
    served()->close();
    serving_.loseDevice();
    ASSERT_TRUE(capture_.waitForOutput("Cleanup all ConnectionHandlers - DONE\n"));
    serving_.device->setAvailable(true);
    ASSERT_TRUE(capture_.waitForOutput("Launch was successful.\n", 2));
    EXPECT_EQ(served()->request("O00"), "O0010O");
}

TEST_F(Server, DeviceBackWithinTheSameMomentOpensANewSocketOnce) {
    for (std::size_t time = 1; time <= 20; ++time) {
        // Lent only while an accept waits, so the call is repeated until it hits one.
        EXPECT_TRUE(eventually([&] {
            serving_.monitor->callDeviceDisconnectionCallback();
            return support::countOf("Closing server-socket (device unavailable).",
                                    capture_.error()) >= time;
        }));
        ASSERT_TRUE(capture_.waitForOutput("Launch was successful.\n", time + 1));
    }
    served();
    const std::string errors = capture_.error();
    EXPECT_EQ(support::countOf("Failed to accept incoming connection.", errors),
              support::countOf("Closing server-socket (device unavailable).", errors));
}

TEST_F(Server, ClientAcceptedWhenTheDeviceIsLostIsClosedAgain) {
    // Unavailable from the next question on, which comes after the accept.
    serving_.device->setAvailable(false);
    Client client(serving_.port.number());
    EXPECT_TRUE(client.waitForEnd());
    ASSERT_TRUE(capture_.waitForOutput("Cleanup all ConnectionHandlers - DONE\n"));
    EXPECT_EQ(outputCount("[GpioServer] Device is not available, closing connection again.\n"), 1U);
    EXPECT_EQ(outputCount("Device is available, starting"), 0U);
    EXPECT_EQ(capture_.errorLines(),
              Lines{"[GpioServer] Closing server-socket (device unavailable)."});
}

TEST_F(Server, SocketsExceptionInTheLoopDropsTheClientsAndOpensANewSocket) {
    const std::unique_ptr<Client> other = served();
    ASSERT_TRUE(waitUntilAccepting(1));
    failAtNextQuestion();
    Client client(serving_.port.number());
    EXPECT_TRUE(client.waitForEnd());
    EXPECT_TRUE(other->waitForEnd());
    ASSERT_TRUE(capture_.waitForOutput("Launch was successful.\n", 2));
    Lines errors = capture_.errorLines();
    errors.resize(2); // the other client's handler may tell of its end
    EXPECT_EQ(errors, (Lines{"[GpioServer] Problem with ServerSocket! Exception caught [worn out].",
                             "[GpioServer] Closing server-socket (device unavailable)."}));
    EXPECT_EQ(served()->request("O00"), "O0010O");
}

TEST_F(Server, OtherExceptionInTheLoopEndsTheServer) {
    serving_.device->setAvailability(
        []() -> BOOL { throw CommandException("the device is on fire, 100%"); });
    Client client(serving_.port.number());
    EXPECT_EQ(serving_.waitForResult(), "the device is on fire, 100%");
    EXPECT_EQ(capture_.errorLines(),
              Lines{"[GpioServer] Exception caught [the device is on fire, 100%]."});
}

TEST_F(Server, CleanUpDoesNotWaitForAHandlerThatHangs) {
    const std::unique_ptr<Client> hanging = served();
    const std::unique_ptr<Client> other = served();
    keepBusy(*hanging);
    serving_.loseDevice();
    EXPECT_TRUE(other->waitForEnd());
    EXPECT_TRUE(capture_.waitForOutput("Cleanup all ConnectionHandlers - DONE\n"));
    mayGoOn_ = true;
    EXPECT_TRUE(capture_.waitForOutput(FREED_LINE, 2));
}

TEST_F(Server, ThreadsAndDescriptorsAreGivenBack) {
    served()->close();
    ASSERT_TRUE(capture_.waitForOutput(FREED_LINE, 1));
    const std::size_t descriptorsBefore = support::descriptorCount(support::self());
    const std::size_t threadsBefore = serving_.threadsBefore + 1;
    for (std::size_t count = 2; count <= 20; ++count) {
        served()->close();
        ASSERT_TRUE(capture_.waitForOutput(FREED_LINE, count));
    }
    EXPECT_EQ(support::descriptorCount(support::self()), descriptorsBefore);
    EXPECT_TRUE(eventually([&] { return support::threadCount(support::self()) == threadsBefore; }));
}
