#include <array>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <future>
#include <iterator>
#include <ostream>

#include <gtest/gtest.h>
#include <pthread.h>

#include <gpio-client/ChangeWatcher.h>
#include <gpio-client/Client.h>

#include "support/Eventually.h"
#include "support/FakeServer.h"
#include "support/ReservedPort.h"

using gpioclient::BackEnd;
using gpioclient::Cause;
using gpioclient::ChangeNotice;
using gpioclient::Client;
using gpioclient::Direction;
using gpioclient::Endpoint;
using gpioclient::Error;
using gpioclient::Level;
using gpioclient::Options;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr milliseconds PATIENCE = support::PATIENCE;
const char* const BOARD_PROBE_ANSWER = "^INVALID COMMAND: I00^";

Options patientOptions() {
    Options options;
    options.connectTimeout = PATIENCE;
    options.requestTimeout = PATIENCE;
    options.closeTimeout = PATIENCE;
    return options;
}

Options hastyOptions() {
    Options options = patientOptions();
    // The first request must succeed in most of these tests, on a busy machine too.
    options.requestTimeout = milliseconds(2000);
    options.closeTimeout = milliseconds(200);
    return options;
}

template <typename Action> Cause causeOf(Action action) {
    try {
        action();
    } catch (const Error& error) {
        return error.cause();
    }
    ADD_FAILURE() << "nothing was thrown";
    return Cause::InvalidArgument;
}

/// Answers the probe like a board, then each command with the next of `answers`.
FakeServer::Script boardScript(std::vector<std::string> answers,
                               std::promise<std::vector<std::string>>* received = nullptr) {
    return [answers = std::move(answers), received](const FakePeer& peer) {
        std::vector<std::string> commands{peer.receive()};
        peer.send(BOARD_PROBE_ANSWER);
        for (const std::string& answer : answers) {
            commands.push_back(peer.receive());
            peer.send(answer);
        }
        while (!peer.receive().empty()) {
        }
        if (received != nullptr) {
            received->set_value(commands);
        }
    };
}

/// Answers the probe like the test back end, then plays the rest after the next command.
FakeServer::Script afterFirstCommand(std::function<void(const FakePeer&)> rest) {
    return [rest = std::move(rest)](const FakePeer& peer) {
        peer.receive();
        peer.send("I0000I\n");
        peer.receive();
        rest(peer);
    };
}

void untilHungUp(const FakePeer& peer) {
    while (!peer.receive().empty()) {
    }
}

/// Answers the probe like the test back end, and the next command with these bytes.
FakeServer::Script answering(const std::string& bytes) {
    return afterFirstCommand([bytes](const FakePeer& peer) {
        peer.send(bytes);
        untilHungUp(peer);
    });
}

struct WrongAnswer {
    const char* name;
    std::string bytes;
    bool isEndless;
    Cause cause;

    friend void PrintTo(const WrongAnswer& answer, std::ostream* stream) { *stream << answer.name; }
};

class WrongAnswerTest : public testing::TestWithParam<WrongAnswer> {};

} // namespace

TEST(ClientTest, RecognisesTheTestBackEnd) {
    FakeServer server([](const FakePeer& peer) { peer.beTestBackEnd(); });
    const Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(client.backEnd(), BackEnd::Test);
    EXPECT_EQ(client.pinCount(), 16U);
}

TEST(ClientTest, RecognisesTheBoard) {
    FakeServer server(boardScript({}));
    const Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(client.backEnd(), BackEnd::Board);
    EXPECT_EQ(client.pinCount(), 29U);
}

TEST(ClientTest, RefusesAServerOfAnotherKind) {
    FakeServer server([](const FakePeer& peer) {
        peer.send("220 ready\r\n");
        untilHungUp(peer);
    });
    EXPECT_EQ(causeOf([&] { Client(server.endpoint(), patientOptions()); }),
              Cause::ProtocolViolation);
}

TEST(ClientTest, RefusesAnUnexpectedErrorTextToItsFirstRequest) {
    FakeServer server([](const FakePeer& peer) {
        peer.receive();
        peer.send("^go away^");
        untilHungUp(peer);
    });
    EXPECT_EQ(causeOf([&] { Client(server.endpoint(), patientOptions()); }),
              Cause::ProtocolViolation);
}

TEST(ClientTest, ConnectsOverIpv6) {
    FakeServer server([](const FakePeer& peer) { peer.beTestBackEnd(); }, 0, true);
    EXPECT_EQ(Client(server.endpoint(), patientOptions()).backEnd(), BackEnd::Test);
}

TEST(ClientTest, ConnectsByName) {
    FakeServer server([](const FakePeer& peer) { peer.beTestBackEnd(); });
    EXPECT_EQ(Client({"localhost", server.port()}, patientOptions()).backEnd(), BackEnd::Test);
}

TEST(ClientTest, SaysThatTheConnectionWasRefused) {
    const support::ReservedPort port;
    const Endpoint nobody{"127.0.0.1", port.number()};
    EXPECT_EQ(causeOf([&] { Client(nobody, patientOptions()); }), Cause::ConnectionRefused);
}

TEST(ClientTest, SaysThatTheNameWasNotFound) {
    const Endpoint nowhere{"no-such-host.invalid", 1};
    EXPECT_EQ(causeOf([&] { Client(nowhere, patientOptions()); }), Cause::NameNotFound);
}

TEST(ClientTest, SendsEachCommandWhole) {
    std::promise<std::vector<std::string>> received;
    {
        FakeServer server(boardScript({"W1W\n", "R1R\n", "D0D\n", "DBG\n", "LL\n"}, &received));
        Client client(server.endpoint(), patientOptions());
        client.writePin(12, Level::High);
        client.readPin(28);
        client.direction(13);
        client.enableValueDebugging();
        client.listen();
    }
    EXPECT_EQ(received.get_future().get(),
              (std::vector<std::string>{"I00", "W0C1", "R1C0", "D0D0", "B000", "L000"}));
}

TEST(ClientTest, SendsOneDigitForThePinsOfTheTestBackEnd) {
    std::promise<std::string> command;
    FakeServer server([&](const FakePeer& peer) {
        peer.receive();
        peer.send("I0000I\n");
        command.set_value(peer.receive());
        peer.send("S1S\n");
        untilHungUp(peer);
    });
    Client(server.endpoint(), patientOptions()).setDirection(10, Direction::Input);
    EXPECT_EQ(command.get_future().get(), "SA1");
}

TEST(ClientTest, CutsTheBoardsInputMaskToItsPins) {
    FakeServer server(boardScript({"Pffffffffffffe000P\n"}));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(client.inputPins(), 0x1fffe000U);
}

TEST(ClientTest, TurnsTheBoardsPortsIntoPins) {
    FakeServer server(boardScript({"A00810201A\n", "Affffffff80000000A\n"}));
    Client client(server.endpoint(), patientOptions());
    const gpioclient::Levels levels = client.readLevels();
    const gpioclient::PinMask portA = 1U << 13;
    const gpioclient::PinMask portB = 1U << 22;
    const gpioclient::PinMask portC = 1U << 1 | 1U << 8;
    EXPECT_EQ(levels.high, portA | portB | portC);
    EXPECT_EQ(levels.known, 0x1fffe1feU);
    EXPECT_EQ(client.readLevels().high, 0U) << "the fourth port has no pins that can be read";
}

TEST(ClientTest, ReadsAnOutputOfTheBoardFromWhatWasWrittenLast) {
    FakeServer server(boardScript({"A00040000A\n"}));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(client.readPin(3), Level::High);
}

TEST(ClientTest, RefusesToReadAnOutputThatTheServerDoesNotRemember) {
    FakeServer server(boardScript({}));
    Client client(server.endpoint(), patientOptions());
    for (const unsigned pin : {0U, 9U, 12U}) {
        EXPECT_EQ(causeOf([&] { client.readPin(pin); }), Cause::Unsupported) << pin;
    }
}

TEST(ClientTest, SendsNothingForPinsThatDoNotExist) {
    std::promise<std::vector<std::string>> received;
    {
        FakeServer server(boardScript({}, &received));
        Client client(server.endpoint(), patientOptions());
        EXPECT_EQ(causeOf([&] { client.readPin(29); }), Cause::PinOutOfRange);
        EXPECT_EQ(causeOf([&] { client.writePin(255, Level::Low); }), Cause::PinOutOfRange);
        EXPECT_EQ(causeOf([&] { client.direction(29); }), Cause::PinOutOfRange);
        EXPECT_EQ(causeOf([&] { client.writePin(13, Level::Low); }), Cause::Unsupported);
        EXPECT_EQ(causeOf([&] { client.setDirection(1, Direction::Input); }), Cause::Unsupported);
    }
    EXPECT_EQ(received.get_future().get(), std::vector<std::string>{"I00"});
}

TEST(ClientTest, ReadsTheFirmwareVersion) {
    FakeServer server(boardScript({"VUnknownV\n", "Vv2.5V\n"}));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(client.firmwareVersion(), "Unknown");
    EXPECT_EQ(client.firmwareVersion(), "v2.5");
}

TEST(ClientTest, ReportsAFailureDigit) {
    FakeServer server(boardScript({"W0W\n"}));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(causeOf([&] { client.writePin(1, Level::High); }), Cause::RequestFailed);
}

TEST(ClientTest, StaysConnectedAfterAnErrorText) {
    FakeServer server(boardScript({"^ UNKNOWN COMMAND: Z000 ^", "R1R\n"}));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(causeOf([&] { client.raw("Z000"); }), Cause::ServerError);
    EXPECT_EQ(client.readPin(13), Level::High);
}

TEST(ClientTest, RefusesRawCommandsThatWouldUpsetTheConnection) {
    FakeServer server(boardScript({}));
    Client client(server.endpoint(), patientOptions());
    for (const std::string& command : {std::string(), std::string("\n"), std::string("W1\n"),
                                       std::string("W001R"), std::string("R\0", 2)}) {
        EXPECT_EQ(causeOf([&] { client.raw(command); }), Cause::InvalidArgument) << command;
    }
}

TEST(ClientTest, CancellingEndsARequest) {
    std::atomic<bool> asked = false;
    Options options = patientOptions();
    options.isCancelled = [&] { return asked.load(); };
    FakeServer server(afterFirstCommand([&](const FakePeer& peer) {
        asked = true;
        untilHungUp(peer);
    }));
    Client client(server.endpoint(), options);
    EXPECT_EQ(causeOf([&] { client.readPin(1); }), Cause::Cancelled);
    EXPECT_FALSE(client.isOpen());
}

TEST(ClientTest, CancellingEndsTheWaitForANotice) {
    std::atomic<bool> asked = false;
    Options options = patientOptions();
    options.isCancelled = [&] { return asked.load(); };
    FakeServer server(boardScript({"LL\n"}));
    Client client(server.endpoint(), options);
    client.listen();
    asked = true;
    EXPECT_EQ(causeOf([&] { client.waitForChange(PATIENCE); }), Cause::Cancelled);
}

TEST(ClientTest, AsksTheSystemToNoticeAHostThatVanishes) {
    FakeServer server([](const FakePeer& peer) { peer.beTestBackEnd(); });
    const Client client(server.endpoint(), patientOptions());
    // The kernel's table: local and remote address, state, queues, timer; 02 is the keep-alive.
    std::array<char, 64> remote{};
    std::snprintf(remote.data(), remote.size(),
                  " 0100007F:%04X 01 00000000:00000000 02:", static_cast<unsigned>(server.port()));
    EXPECT_TRUE(support::eventually([&] {
        std::ifstream table("/proc/net/tcp");
        const std::string text{std::istreambuf_iterator<char>(table), {}};
        return text.find(remote.data()) != std::string::npos;
    }));
}

TEST(ClientTest, ReportsThatNoThreadCanBeStarted) {
    pthread_attr_t normal;
    pthread_getattr_default_np(&normal);
    pthread_attr_t huge = normal;
    pthread_attr_setstacksize(&huge, ~std::size_t{0xFFFFF});
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    const Cause cause = causeOf([] { Client({"localhost", 1}, patientOptions()); });
    pthread_setattr_default_np(&normal);
    pthread_attr_destroy(&normal);
    EXPECT_EQ(cause, Cause::OutOfResources);
}

TEST(HostileServerTest, AnswerSplitAtEveryByte) {
    FakeServer server(afterFirstCommand([](const FakePeer& peer) {
        peer.sendInPieces({"A", "0", "0", "a", "5", "A", "\n"});
        untilHungUp(peer);
    }));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(client.readLevels().high, 0xa5U);
}

TEST(HostileServerTest, NoticeJoinedBeforeInsideAndAfterAnswers) {
    FakeServer joined(
        boardScript({"U2000|00002000U\nA0000U2000|0000U\n0001A\nU4000|00004000U\n", "R1R\n"}));
    Client client(joined.endpoint(), patientOptions());
    EXPECT_EQ(client.readLevels().high, 1U << 13);
    EXPECT_EQ(client.readPin(13), Level::High);
    EXPECT_EQ(client.takeQueuedChange()->high, 0x2000U);
    EXPECT_EQ(client.takeQueuedChange()->high, 0U);
    EXPECT_EQ(client.takeQueuedChange()->high, 0x4000U);
}

TEST(HostileServerTest, NoticeBeforeAnyAnswer) {
    FakeServer server([](const FakePeer& peer) {
        peer.send("U2000|00002000U\n");
        peer.receive();
        peer.send(BOARD_PROBE_ANSWER);
        untilHungUp(peer);
    });
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(client.backEnd(), BackEnd::Board);
    EXPECT_TRUE(client.takeQueuedChange());
}

TEST(HostileServerTest, SilenceAfterConnecting) {
    FakeServer server(untilHungUp);
    EXPECT_EQ(causeOf([&] { Client(server.endpoint(), hastyOptions()); }), Cause::TimedOut);
}

TEST_P(WrongAnswerTest, EndsTheConnectionForGood) {
    const WrongAnswer& answer = GetParam();
    FakeServer server(afterFirstCommand([&](const FakePeer& peer) {
        while (peer.send(answer.bytes) && answer.isEndless) {
        }
        untilHungUp(peer);
    }));
    Client client(server.endpoint(), hastyOptions());
    EXPECT_EQ(causeOf([&] { client.readPin(1); }), answer.cause);
    EXPECT_FALSE(client.isOpen());
    EXPECT_EQ(causeOf([&] { client.readPin(1); }), Cause::ConnectionLost);
}

INSTANTIATE_TEST_SUITE_P(
    All, WrongAnswerTest,
    testing::Values(
        WrongAnswer{"None", "", false, Cause::TimedOut},
        WrongAnswer{"Half", "R1", false, Cause::TimedOut},
        WrongAnswer{"EndlessNotices", "U2000|00002000U\nU2000|00000000U\n", true, Cause::TimedOut},
        WrongAnswer{"ToAnotherCommand", "W1W\n", false, Cause::ProtocolViolation},
        WrongAnswer{"EndlessNonsense", std::string(1000, 'x'), true, Cause::ProtocolViolation},
        WrongAnswer{"EndlessError", "^" + std::string(1000, ' '), true, Cause::ProtocolViolation}),
    [](const auto& test) { return test.param.name; });

TEST(HostileServerTest, LiesAboutTheNumberOfInputs) {
    FakeServer server(answering("Iffff1I\n"));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(causeOf([&] { client.inputCount(); }), Cause::ProtocolViolation);
}

TEST(HostileServerTest, AnswersTwice) {
    FakeServer server(answering("R1RR0R\n"));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(client.readPin(1), Level::High);
    EXPECT_EQ(causeOf([&] { client.readPin(1); }), Cause::ProtocolViolation);
}

TEST(HostileServerTest, HangsUpAtEveryPointOfTheProbe) {
    const std::string answer = "I0000I";
    for (std::size_t size = 0; size < answer.size(); ++size) {
        FakeServer server([&](const FakePeer& peer) {
            peer.receive();
            peer.send(answer.substr(0, size));
        });
        EXPECT_EQ(causeOf([&] { Client(server.endpoint(), patientOptions()); }),
                  Cause::ConnectionLost)
            << size;
    }
}

TEST(HostileServerTest, HangsUpAtEveryPointOfAnAnswer) {
    const std::string answer = "A00a5A";
    for (std::size_t size = 0; size < answer.size(); ++size) {
        FakeServer server(
            afterFirstCommand([&](const FakePeer& peer) { peer.send(answer.substr(0, size)); }));
        Client client(server.endpoint(), patientOptions());
        EXPECT_EQ(causeOf([&] { client.readLevels(); }), Cause::ConnectionLost) << size;
    }
}

TEST(HostileServerTest, HangsUpBeforeTheFirstCommand) {
    FakeServer server([](const FakePeer&) {});
    EXPECT_EQ(causeOf([&] { Client(server.endpoint(), patientOptions()); }), Cause::ConnectionLost);
}

TEST(HostileServerTest, ResetsTheConnection) {
    FakeServer server(afterFirstCommand([](const FakePeer& peer) { peer.endWithReset(); }));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(causeOf([&] { client.readPin(1); }), Cause::ConnectionLost);
}

TEST(HostileServerTest, HangsUpWhileANoticeIsAwaited) {
    FakeServer server(afterFirstCommand([](const FakePeer& peer) { peer.send("LL\n"); }));
    Client client(server.endpoint(), patientOptions());
    client.listen();
    EXPECT_EQ(causeOf([&] { client.waitForChange(PATIENCE); }), Cause::ConnectionLost);
}

TEST(HostileServerTest, SpeaksWithoutBeingAsked) {
    FakeServer server(answering("LL\nR1R\n"));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(causeOf([&] {
                  client.listen();
                  client.waitForChange(PATIENCE);
              }),
              Cause::ProtocolViolation);
}

TEST(ClientNoticeTest, WaitingEndsWithNothingWhenTheTimeIsOver) {
    FakeServer server(boardScript({"LL\n"}));
    Client client(server.endpoint(), patientOptions());
    client.listen();
    EXPECT_FALSE(client.waitForChange(milliseconds(50)));
    EXPECT_TRUE(client.isOpen());
}

TEST(ClientNoticeTest, WaitingEndsWithANotice) {
    FakeServer server(boardScript({"LL\nU2000|1fffc000U\n"}));
    Client client(server.endpoint(), patientOptions());
    client.listen();
    const auto notice = client.waitForChange(PATIENCE);
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->changed, 0x2000U);
    EXPECT_EQ(notice->high, 0x1fffc000U);
}

TEST(ClientNoticeTest, SettledLevelsFollowANoticeThatCameMeanwhile) {
    FakeServer server(boardScript({"U2000|00002000U\nA00000000A\n"}));
    Client client(server.endpoint(), patientOptions());
    EXPECT_EQ(client.readSettledLevels().high, 0x2000U);
}

TEST(ClientNoticeTest, SettledLevelsAreNewerThanTheNoticesBeforeThem) {
    FakeServer server(boardScript({"R0R\nU2000|00002000U\n", "A00000000A\n"}));
    Client client(server.endpoint(), patientOptions());
    client.readPin(13);
    EXPECT_TRUE(client.waitForChange(PATIENCE));
    EXPECT_EQ(client.readSettledLevels().high, 0U);
}

TEST(ClientNoticeTest, ClosingReadsUntilTheServerHasHungUp) {
    std::promise<bool> written;
    FakeServer server([&](const FakePeer& peer) {
        peer.receive();
        peer.send(BOARD_PROBE_ANSWER);
        bool ok = peer.receive().empty();
        for (int i = 0; i < 1000; ++i) {
            ok = peer.send("U2000|00002000U\n") && ok;
        }
        written.set_value(ok);
    });
    Client client(server.endpoint(), patientOptions());
    client.close();
    EXPECT_TRUE(written.get_future().get());
}

TEST(ChangeWatcherTest, CallsBackForEachNotice) {
    FakeServer server(boardScript({"LL\nU2000|00002000U\nU2000|00000000U\n"}));
    std::promise<void> both;
    std::vector<gpioclient::PinMask> seen;
    const gpioclient::ChangeWatcher watcher(
        server.endpoint(), patientOptions(),
        [&](const ChangeNotice& notice) {
            seen.push_back(notice.high);
            if (seen.size() == 2) {
                both.set_value();
            }
        },
        nullptr);
    ASSERT_EQ(both.get_future().wait_for(PATIENCE), std::future_status::ready);
    EXPECT_EQ(seen, (std::vector<gpioclient::PinMask>{0x2000, 0}));
}

TEST(ChangeWatcherTest, ReportsTheLossOfTheConnection) {
    FakeServer server([](const FakePeer& peer) {
        peer.receive();
        peer.send(BOARD_PROBE_ANSWER);
        peer.receive();
        peer.send("LL\n");
    });
    std::promise<Cause> cause;
    const gpioclient::ChangeWatcher watcher(
        server.endpoint(), patientOptions(), [](const ChangeNotice&) {},
        [&](const Error& error) { cause.set_value(error.cause()); });
    EXPECT_EQ(cause.get_future().get(), Cause::ConnectionLost);
}

TEST(ChangeWatcherTest, RefusesTheTestBackEnd) {
    FakeServer server([](const FakePeer& peer) { peer.beTestBackEnd(); });
    EXPECT_EQ(causeOf([&] {
                  gpioclient::ChangeWatcher(
                      server.endpoint(), patientOptions(), [](const ChangeNotice&) {}, nullptr);
              }),
              Cause::Unsupported);
}

TEST(EndpointTest, ReadsHostAndPort) {
    EXPECT_EQ(Endpoint::parse("example.org:5000").toString(), "example.org:5000");
    EXPECT_EQ(Endpoint::parse("[::1]:5000").host, "::1");
    EXPECT_EQ(Endpoint::parse("[::1]:5000").toString(), "[::1]:5000");
}

TEST(EndpointTest, RefusesEverythingElse) {
    for (const char* text : {"", "host", ":5000", "host:", "host:0", "host:65536", "host:5x",
                             "::1:5000", "[]:5000", "host: 5000"}) {
        EXPECT_EQ(causeOf([&] { Endpoint::parse(text); }), Cause::InvalidArgument) << text;
    }
}
