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

#include "Harness.h"
#include "support/Eventually.h"

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
using support::answering;
using support::BOARD_PROBE_ANSWER;
using support::FakePeer;
using support::FakeServer;

namespace {

constexpr milliseconds PATIENCE = support::PATIENCE;
constexpr const char* TEST_PROBE_ANSWER = "I0000I\n";

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

/// Why a client does not get on with a server of this kind.
Cause causeOfConnecting(FakeServer::Script script) {
    const FakeServer server(std::move(script));
    return causeOf([&] { Client(server.endpoint(), patientOptions()); });
}

/// A client with a server of its own.
struct ConnectedClient : private FakeServer, public Client {
    explicit ConnectedClient(Script script, const Options& options = patientOptions())
        : FakeServer(std::move(script)), Client(endpoint(), options) {}
};

/// Answers the probe like a board, then each command with the next of `answers`.
FakeServer::Script board(std::vector<std::string> answers) {
    answers.insert(answers.begin(), BOARD_PROBE_ANSWER);
    return answering(std::move(answers));
}

/// Answers the probe like the test back end, then plays the rest after the next command.
FakeServer::Script afterFirstCommand(std::function<void(const FakePeer&)> rest) {
    return [rest = std::move(rest)](const FakePeer& peer) {
        peer.answer({TEST_PROBE_ANSWER});
        peer.receive();
        rest(peer);
    };
}

struct WrongAnswer {
    const char* name;
    std::string bytes;
    bool isEndless;
    Cause cause;

    friend void PrintTo(const WrongAnswer& answer, std::ostream* stream) { *stream << answer.name; }
};

class AnyWrongAnswer : public testing::TestWithParam<WrongAnswer> {};

} // namespace

TEST(Client, RecognisesTheTestBackEnd) {
    const ConnectedClient client(&FakePeer::beTestBackEnd);
    EXPECT_EQ(client.backEnd(), BackEnd::Test);
    EXPECT_EQ(client.pinCount(), 16U);
}

TEST(Client, RefusesAnUnexpectedErrorTextToItsFirstRequest) {
    EXPECT_EQ(causeOfConnecting(answering({"^go away^"})), Cause::ProtocolViolation);
}

TEST(Client, ConnectsOverIpv6) {
    const FakeServer server(&FakePeer::beTestBackEnd, 0, true);
    EXPECT_EQ(Client(server.endpoint(), patientOptions()).backEnd(), BackEnd::Test);
}

TEST(Client, ConnectsByName) {
    const FakeServer server(&FakePeer::beTestBackEnd);
    EXPECT_EQ(Client({"localhost", server.port()}, patientOptions()).backEnd(), BackEnd::Test);
}

TEST(Client, SaysThatTheNameWasNotFound) {
    const Endpoint nowhere{"no-such-host.invalid", 1};
    EXPECT_EQ(causeOf([&] { Client(nowhere, patientOptions()); }), Cause::NameNotFound);
}

TEST(Client, SendsEachCommandWhole) {
    std::promise<std::vector<std::string>> received;
    ConnectedClient client([&](const FakePeer& peer) {
        received.set_value(
            peer.answer({BOARD_PROBE_ANSWER, "W1W\n", "R1R\n", "D0D\n", "DBG\n", "LL\n"}));
    });
    client.writePin(12, Level::High);
    client.readPin(28);
    client.direction(13);
    client.enableValueDebugging();
    client.listen();
    EXPECT_EQ(received.get_future().get(),
              (std::vector<std::string>{"I00", "W0C1", "R1C0", "D0D0", "B000", "L000"}));
}

TEST(Client, SendsOneDigitForThePinsOfTheTestBackEnd) {
    std::promise<std::vector<std::string>> received;
    ConnectedClient client([&](const FakePeer& peer) {
        received.set_value(peer.answer({TEST_PROBE_ANSWER, "S1S\n"}));
    });
    client.setDirection(10, Direction::Input);
    EXPECT_EQ(received.get_future().get(), (std::vector<std::string>{"I00", "SA1"}));
}

TEST(Client, CutsTheBoardsInputMaskToItsPins) {
    ConnectedClient client(board({"Pffffffffffffe000P\n"}));
    EXPECT_EQ(client.inputPins(), 0x1fffe000U);
}

TEST(Client, TurnsTheBoardsPortsIntoPins) {
    ConnectedClient client(board({"A00810201A\n", "Affffffff80000000A\n"}));
    const gpioclient::Levels levels = client.readLevels();
    const gpioclient::PinMask portA = 1U << 13;
    const gpioclient::PinMask portB = 1U << 22;
    const gpioclient::PinMask portC = 1U << 1 | 1U << 8;
    EXPECT_EQ(levels.high, portA | portB | portC);
    EXPECT_EQ(levels.known, 0x1fffe1feU);
    EXPECT_EQ(client.readLevels().high, 0U) << "the fourth port has no pins that can be read";
}

TEST(Client, ReadsAnOutputOfTheBoardFromWhatWasWrittenLast) {
    ConnectedClient client(board({"A00040000A\n"}));
    EXPECT_EQ(client.readPin(3), Level::High);
}

TEST(Client, RefusesToReadAnOutputThatTheServerDoesNotRemember) {
    ConnectedClient client(board({}));
    for (const unsigned pin : {0U, 9U, 12U}) {
        EXPECT_EQ(causeOf([&] { client.readPin(pin); }), Cause::Unsupported) << pin;
    }
}

TEST(Client, SendsNothingForPinsThatDoNotExist) {
    std::promise<std::vector<std::string>> received;
    ConnectedClient client([&](const FakePeer& peer) {
        received.set_value(peer.answer({BOARD_PROBE_ANSWER, ""}));
    });
    EXPECT_EQ(causeOf([&] { client.readPin(29); }), Cause::PinOutOfRange);
    EXPECT_EQ(causeOf([&] { client.writePin(255, Level::Low); }), Cause::PinOutOfRange);
    EXPECT_EQ(causeOf([&] { client.direction(29); }), Cause::PinOutOfRange);
    EXPECT_EQ(causeOf([&] { client.writePin(13, Level::Low); }), Cause::Unsupported);
    EXPECT_EQ(causeOf([&] { client.setDirection(1, Direction::Input); }), Cause::Unsupported);
    client.close();
    EXPECT_EQ(received.get_future().get(), (std::vector<std::string>{"I00", ""}));
}

TEST(Client, ReadsTheFirmwareVersion) {
    ConnectedClient client(board({"VUnknownV\n", "Vv2.5V\n"}));
    EXPECT_EQ(client.firmwareVersion(), "Unknown");
    EXPECT_EQ(client.firmwareVersion(), "v2.5");
}

TEST(Client, ReportsAFailureDigit) {
    ConnectedClient client(board({"W0W\n"}));
    EXPECT_EQ(causeOf([&] { client.writePin(1, Level::High); }), Cause::RequestFailed);
}

TEST(Client, StaysConnectedAfterAnErrorText) {
    ConnectedClient client(board({"^ UNKNOWN COMMAND: Z000 ^", "R1R\n"}));
    EXPECT_EQ(causeOf([&] { client.raw("Z000"); }), Cause::ServerError);
    EXPECT_EQ(client.readPin(13), Level::High);
}

TEST(Client, RefusesRawCommandsThatWouldUpsetTheConnection) {
    ConnectedClient client(board({}));
    for (const std::string& command : {std::string(), std::string("\n"), std::string("W1\n"),
                                       std::string("W001R"), std::string("R\0", 2)}) {
        EXPECT_EQ(causeOf([&] { client.raw(command); }), Cause::InvalidArgument) << command;
    }
}

TEST(Client, CancellingEndsARequest) {
    std::atomic<bool> asked = false;
    Options options = patientOptions();
    options.isCancelled = [&] { return asked.load(); };
    ConnectedClient client(afterFirstCommand([&](const FakePeer& peer) {
                               asked = true;
                               peer.beSilent();
                           }),
                           options);
    EXPECT_EQ(causeOf([&] { client.readPin(1); }), Cause::Cancelled);
    EXPECT_FALSE(client.isOpen());
}

TEST(Client, CancellingEndsTheWaitForANotice) {
    std::atomic<bool> asked = false;
    Options options = patientOptions();
    options.isCancelled = [&] { return asked.load(); };
    ConnectedClient client(board({"LL\n"}), options);
    client.listen();
    asked = true;
    EXPECT_EQ(causeOf([&] { client.waitForChange(PATIENCE); }), Cause::Cancelled);
}

TEST(Client, AsksTheSystemToNoticeAHostThatVanishes) {
    const FakeServer server(&FakePeer::beTestBackEnd);
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

TEST(Client, ReportsThatNoThreadCanBeStarted) {
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

TEST(HostileServer, AnswerSplitAtEveryByte) {
    ConnectedClient client(afterFirstCommand([](const FakePeer& peer) {
        peer.sendInPieces({"A", "0", "0", "a", "5", "A", "\n"});
        peer.beSilent();
    }));
    EXPECT_EQ(client.readLevels().high, 0xa5U);
}

TEST(HostileServer, NoticeJoinedBeforeInsideAndAfterAnswers) {
    ConnectedClient client(
        board({"U2000|00002000U\nA0000U2000|0000U\n0001A\nU4000|00004000U\n", "R1R\n"}));
    EXPECT_EQ(client.readLevels().high, 1U << 13);
    EXPECT_EQ(client.readPin(13), Level::High);
    EXPECT_EQ(client.takeQueuedChange()->high, 0x2000U);
    EXPECT_EQ(client.takeQueuedChange()->high, 0U);
    EXPECT_EQ(client.takeQueuedChange()->high, 0x4000U);
}

TEST(HostileServer, NoticeBeforeAnyAnswer) {
    ConnectedClient client([](const FakePeer& peer) {
        peer.send("U2000|00002000U\n");
        board({})(peer);
    });
    EXPECT_EQ(client.backEnd(), BackEnd::Board);
    EXPECT_TRUE(client.takeQueuedChange());
}

TEST_P(AnyWrongAnswer, EndsTheConnectionForGood) {
    const WrongAnswer& answer = GetParam();
    ConnectedClient client(afterFirstCommand([&](const FakePeer& peer) {
                               while (peer.send(answer.bytes) && answer.isEndless) {
                               }
                               peer.beSilent();
                           }),
                           hastyOptions());
    EXPECT_EQ(causeOf([&] { client.readPin(1); }), answer.cause);
    EXPECT_FALSE(client.isOpen());
    EXPECT_EQ(causeOf([&] { client.readPin(1); }), Cause::ConnectionLost);
}

INSTANTIATE_TEST_SUITE_P(
    All, AnyWrongAnswer,
    testing::Values(
        WrongAnswer{"None", "", false, Cause::TimedOut},
        WrongAnswer{"Half", "R1", false, Cause::TimedOut},
        WrongAnswer{"EndlessNotices", "U2000|00002000U\nU2000|00000000U\n", true, Cause::TimedOut},
        WrongAnswer{"ToAnotherCommand", "W1W\n", false, Cause::ProtocolViolation},
        WrongAnswer{"EndlessNonsense", std::string(1000, 'x'), true, Cause::ProtocolViolation},
        WrongAnswer{"EndlessError", "^" + std::string(1000, ' '), true, Cause::ProtocolViolation}),
    [](const auto& test) { return test.param.name; });

TEST(HostileServer, LiesAboutTheNumberOfInputs) {
    ConnectedClient client(answering({TEST_PROBE_ANSWER, "Iffff1I\n"}));
    EXPECT_EQ(causeOf([&] { client.inputCount(); }), Cause::ProtocolViolation);
}

TEST(HostileServer, AnswersTwice) {
    ConnectedClient client(answering({TEST_PROBE_ANSWER, "R1RR0R\n"}));
    EXPECT_EQ(client.readPin(1), Level::High);
    EXPECT_EQ(causeOf([&] { client.readPin(1); }), Cause::ProtocolViolation);
}

TEST(HostileServer, HangsUpAtEveryPointOfAnAnswer) {
    const std::string answer = "A00a5A";
    for (std::size_t size = 0; size < answer.size(); ++size) {
        ConnectedClient client([&](const FakePeer& peer) {
            peer.answer({TEST_PROBE_ANSWER, answer.substr(0, size)});
        });
        EXPECT_EQ(causeOf([&] { client.readLevels(); }), Cause::ConnectionLost) << size;
    }
}

TEST(HostileServer, HangsUpBeforeTheFirstCommand) {
    EXPECT_EQ(causeOfConnecting([](const FakePeer&) {}), Cause::ConnectionLost);
}

TEST(HostileServer, ResetsTheConnection) {
    ConnectedClient client(afterFirstCommand(&FakePeer::endWithReset));
    EXPECT_EQ(causeOf([&] { client.readPin(1); }), Cause::ConnectionLost);
}

TEST(HostileServer, SpeaksWithoutBeingAsked) {
    ConnectedClient client(answering({TEST_PROBE_ANSWER, "LL\nR1R\n"}));
    EXPECT_EQ(causeOf([&] {
                  client.listen();
                  client.waitForChange(PATIENCE);
              }),
              Cause::ProtocolViolation);
}

TEST(ClientNotice, WaitingEndsWithNothingWhenTheTimeIsOver) {
    ConnectedClient client(board({"LL\n"}));
    client.listen();
    EXPECT_FALSE(client.waitForChange(milliseconds(50)));
    EXPECT_TRUE(client.isOpen());
}

TEST(ClientNotice, SettledLevelsFollowANoticeThatCameMeanwhile) {
    ConnectedClient client(board({"U2000|00002000U\nA00000000A\n"}));
    EXPECT_EQ(client.readSettledLevels().high, 0x2000U);
}

TEST(ClientNotice, SettledLevelsAreNewerThanTheNoticesBeforeThem) {
    ConnectedClient client(board({"R0R\nU2000|00002000U\n", "A00000000A\n"}));
    client.readPin(13);
    EXPECT_TRUE(client.waitForChange(PATIENCE));
    EXPECT_EQ(client.readSettledLevels().high, 0U);
}

TEST(ClientNotice, ClosingReadsUntilTheServerHasHungUp) {
    std::promise<bool> written;
    ConnectedClient client([&](const FakePeer& peer) {
        peer.answer({BOARD_PROBE_ANSWER});
        bool ok = peer.receive().empty();
        for (int i = 0; i < 1000; ++i) {
            ok = peer.send("U2000|00002000U\n") && ok;
        }
        written.set_value(ok);
    });
    client.close();
    EXPECT_TRUE(written.get_future().get());
}

TEST(ChangeWatcher, CallsBackForEachNotice) {
    const FakeServer server(board({"LL\nU2000|00002000U\nU2000|00000000U\n"}));
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

TEST(ChangeWatcher, ReportsTheLossOfTheConnection) {
    const FakeServer server([](const FakePeer& peer) {
        peer.answer({BOARD_PROBE_ANSWER, "LL\n"});
    });
    std::promise<Cause> cause;
    const gpioclient::ChangeWatcher watcher(
        server.endpoint(), patientOptions(), [](const ChangeNotice&) {},
        [&](const Error& error) { cause.set_value(error.cause()); });
    EXPECT_EQ(cause.get_future().get(), Cause::ConnectionLost);
}

TEST(ChangeWatcher, RefusesTheTestBackEnd) {
    const FakeServer server(&FakePeer::beTestBackEnd);
    EXPECT_EQ(causeOf([&] {
                  gpioclient::ChangeWatcher(
                      server.endpoint(), patientOptions(), [](const ChangeNotice&) {}, nullptr);
              }),
              Cause::Unsupported);
}

TEST(Endpoint, ReadsHostAndPort) {
    EXPECT_EQ(Endpoint::parse("example.org:5000").toString(), "example.org:5000");
    EXPECT_EQ(Endpoint::parse("[::1]:5000").host, "::1");
    EXPECT_EQ(Endpoint::parse("[::1]:5000").toString(), "[::1]:5000");
}

TEST(Endpoint, RefusesEverythingElse) {
    for (const char* text : {"", "host", ":5000", "host:", "host:0", "host:65536", "host:5x",
                             "::1:5000", "[]:5000", "host: 5000"}) {
        EXPECT_EQ(causeOf([&] { Endpoint::parse(text); }), Cause::InvalidArgument) << text;
    }
}
