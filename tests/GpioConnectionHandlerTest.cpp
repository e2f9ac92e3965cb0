#include "GpioConnectionHandler.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "GpioConnectionMonitor.h"
#include "exception/DeviceUnavailableException.h"
#include "log/Identity.h"
#include "support/ConnectedPair.h"
#include "support/Eventually.h"
#include "support/Fakes.h"
#include "support/LogCapture.h"
#include "support/LogLines.h"
#include "support/ScopedDebug.h"

using support::LogCapture;
using support::ScopedDebug;

namespace {

using Lines = std::vector<std::string>;
using Events = std::vector<std::string>;

/// Records what the handler reports.
class RecordingMonitor : public GpioConnectionMonitor {
public:
    void connectionEnded(io::Connection* connection) override { record("ended", connection); }

    void inputPinListeningInterestUpdated(bool interested) override {
        record(interested ? "interested" : "not interested", nullptr);
    }

    Events events() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return recorded_;
    }

    bool waitForEnd() {
        return support::eventually([this] {
            const Events seen = events();
            return !seen.empty() && seen.back() == "ended";
        });
    }

    io::Connection* ended() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return endedConnection_;
    }

private:
    void record(const std::string& event, io::Connection* connection) {
        const std::lock_guard<std::mutex> guard(mutex_);
        recorded_.push_back(event);
        endedConnection_ = connection;
    }

    std::mutex mutex_;
    Events recorded_;
    io::Connection* endedConnection_ = nullptr;
};

sockaddr_in peerAddress() {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(5000);
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return peer;
}

/// One client's handler, run on the test's own thread after all the client's input is there.
class Session : public support::ConnectedPair {
public:
    explicit Session(std::size_t protocolSize, int type = SOCK_STREAM)
        : ConnectedPair(type, peerAddress(), protocolSize) {
        handler.setConnectionMonitor(&monitor);
    }

    /// Serves a client that sends all of `input` and then ends; returns what the client received.
    std::string serve(const std::string& input) {
        peerSends(input);
        shutdown(peer.number(), SHUT_WR);
        handler.run();
        return received();
    }

    std::string received() const { return receive(65536, MSG_DONTWAIT); }

    std::string identity() const {
        return "[" + std::to_string(GpioLog::identityOf(&connection)) + "]";
    }

    support::FakeDevice device;
    RecordingMonitor monitor;
    GpioConnectionHandler handler{&connection, &device};
};

class ConnectionHandler : public testing::Test {
protected:
    LogCapture capture_;
    Session session_{3};
};

} // namespace

struct Exchange {
    std::string name;
    std::size_t protocolSize;
    std::string input;
    std::string answers;
    std::string error; ///< empty for none

    friend void PrintTo(const Exchange& exchange, std::ostream* stream) {
        *stream << exchange.name;
    }
};

class ServedInput : public testing::TestWithParam<Exchange> {};

TEST_P(ServedInput, IsAnsweredCommandByCommandUntilItEnds) {
    const auto& [name, protocolSize, input, answers, error] = GetParam();
    const LogCapture capture;
    Session session(protocolSize);
    EXPECT_EQ(session.serve(input), answers);
    EXPECT_TRUE(session.connection.isClosed());
    EXPECT_EQ(session.monitor.events(), Events{"ended"});
    EXPECT_EQ(session.monitor.ended(), &session.connection);
    const std::string line = "[GpioConnectionHandler] Exception caught! [" + error + "]";
    EXPECT_EQ(capture.errorLines(), support::splitLines(error.empty() ? "" : line));
    EXPECT_EQ(capture.output(), "");
}

INSTANTIATE_TEST_SUITE_P(
    OfAClient, ServedInput,
    testing::Values(
        Exchange{"Nothing", 3, "", "", ""}, Exchange{"Commands", 3, "W31R30", "W1W\nR1R\n", ""},
        Exchange{"LoneLineFeed", 3, "W31\n", "W1W\n", ""},
        Exchange{"LeadingZeroByte", 3, std::string("\0R0R00", 6), "", ""},
        Exchange{"UnknownCommand", 3, "Z00R00", "^ UNKNOWN COMMAND: Z00 ^R0R\n",
                 "^UNKNOWN COMMAND: Z00^"},
        Exchange{"ShortCommand", 3, "W3", "^INVALLID COMMAND: W3^", "INVALLID COMMAND: W3"},
        Exchange{"LineFeedInTheSameRead", 3, "W3\nR00", "^INVALLID COMMAND: W3^R0R\n",
                 "INVALLID COMMAND: W3"},
        Exchange{"LineFeedInsideACommand", 3, "Z\n[", "^ UNKNOWN COMMAND: Z\n[ ^",
                 "^UNKNOWN COMMAND: Z\n[^"},
        Exchange{"CarriageReturn", 3, "W31\r\n", "W1W\n^INVALLID COMMAND: \r^",
                 "INVALLID COMMAND: \r"},
        Exchange{"OtherControlCharacters", 3, "\x1b[\x07", "^ UNKNOWN COMMAND: \x1b[\x07 ^",
                 "^UNKNOWN COMMAND: \x1b[\x07^"},
        Exchange{"ZeroByte", 3, std::string("W\0001R00", 6), "^INVALLID COMMAND: W^R0R\n",
                 "INVALLID COMMAND: W"},
        Exchange{"StoringConversion", 3, "%n%", "^ UNKNOWN COMMAND: %n% ^",
                 "^UNKNOWN COMMAND: %n%^"},
        Exchange{"TextConversion", 3, "%s%", "^ UNKNOWN COMMAND: %s% ^", "^UNKNOWN COMMAND: %s%^"},
        Exchange{"LineFeedOfFourBytes", 4, "W31\nR30\n", "W1W\nR1R\n", ""},
        Exchange{"TwoLineFeedsOfFourBytes", 4, "W3\n\nZ0\n\n", "W1W\n^ UNKNOWN COMMAND: Z0\n ^",
                 "^UNKNOWN COMMAND: Z0\n^"}),
    [](const auto& test) { return test.param.name; });

TEST(ConnectionHandlerWrites, AnswerAndLineFeedOneAfterTheOther) {
    const LogCapture capture;
    Session session(3, SOCK_SEQPACKET);
    EXPECT_EQ(session.serve("W31"), "W1W");
    EXPECT_EQ(session.received(), "\n");
    EXPECT_EQ(session.received(), "");
}

TEST(ConnectionHandlerWrites, ErrorTextAndItsFrameAtOnce) {
    const LogCapture capture;
    Session session(3, SOCK_SEQPACKET);
    EXPECT_EQ(session.serve("Z00"), "^ UNKNOWN COMMAND: Z00 ^");
    EXPECT_EQ(session.received(), "");
}

TEST_F(ConnectionHandler, InterestIsReportedOnEveryAnswer) {
    EXPECT_EQ(session_.serve("L00L00K00"), "LL\nLL\nKK\n");
    EXPECT_EQ(session_.monitor.events(),
              (Events{"interested", "interested", "not interested", "ended"}));
    EXPECT_FALSE(session_.handler.isListeningForInputPinChanges());
}

TEST_F(ConnectionHandler, InterestIsReportedBeforeTheClientHasItsAnswer) {
    class Asking : public GpioConnectionMonitor {
    public:
        explicit Asking(Session& asked) : session(asked) {}
        void connectionEnded(io::Connection* /*connection*/) override {}
        void inputPinListeningInterestUpdated(bool /*interested*/) override {
            receivedBefore = session.received();
            listening = session.handler.isListeningForInputPinChanges();
        }
        Session& session;
        std::string receivedBefore = "never told";
        bool listening = false;
    };
    Asking asking(session_);
    session_.handler.setConnectionMonitor(&asking);
    EXPECT_EQ(session_.serve("L00"), "LL\n");
    EXPECT_EQ(asking.receivedBefore, "");
    EXPECT_TRUE(asking.listening);
}

TEST_F(ConnectionHandler, UnavailableDeviceEndsTheConnectionWithoutAnAnswer) {
    session_.device.setBeforeCommand([](const std::string& command) {
        if (command == "R00") {
            throw DeviceUnavailableException("Device is not available.");
        }
    });
    EXPECT_EQ(session_.serve("W31R00W30"), "W1W\n");
    EXPECT_TRUE(session_.connection.isClosed());
    EXPECT_EQ(session_.monitor.events(), Events{"ended"});
    EXPECT_EQ(capture_.errorLines(),
              Lines{"[GpioConnectionHandler] Exception caught! [Device is not available.]"});
}

TEST_F(ConnectionHandler, FailedAnswerEndsTheConnection) {
    session_.peerSends("W31");
    session_.peer.reset();
    session_.handler.run();
    EXPECT_EQ(session_.monitor.events(), Events{"ended"});
    EXPECT_EQ(capture_.outputLines(),
              (Lines{"[Connection] Failed to write to socket connection to: address:[127.0.0.1], "
                     "port:[34835]",
                     "[Connection] Failed to write to connection"}));
    EXPECT_EQ(capture_.errorLines(),
              Lines{"[GpioConnectionHandler] Exception caught! [Failed to write to connection]"});
}

TEST_F(ConnectionHandler, FailedErrorTextEndsTheConnection) {
    session_.peerSends("Z00");
    session_.peer.reset();
    session_.handler.run();
    EXPECT_EQ(session_.monitor.events(), Events{"ended"});
    EXPECT_EQ(capture_.errorLines(),
              (Lines{"[GpioConnectionHandler] Exception caught! [^UNKNOWN COMMAND: Z00^]",
                     "[GpioConnectionHandler] Exception caught! [Failed to write to connection]"}));
}

TEST_F(ConnectionHandler, ClosedConnectionEndsAtOnce) {
    session_.connection.closeConnection();
    session_.handler.run();
    EXPECT_EQ(session_.monitor.events(), Events{"ended"});
    EXPECT_EQ(capture_.output() + capture_.error(), "");
}

TEST_F(ConnectionHandler, ServesOnAThreadOfItsOwnUntilStopped) {
    EXPECT_FALSE(session_.handler.isStarted());
    session_.handler.start();
    EXPECT_TRUE(session_.handler.isStarted());
    session_.peerSends("R00");
    std::string answer;
    ASSERT_TRUE(support::eventually([&] {
        answer += session_.received();
        return answer.size() >= 4;
    }));
    EXPECT_EQ(answer, "R0R\n");
    session_.handler.stop();
    EXPECT_TRUE(session_.monitor.waitForEnd());
}

TEST(ConnectionHandlerDebug, TellsOfEachCommandWithoutItsLineFeed) {
    const ScopedDebug debug;
    const LogCapture capture;
    Session session(4);
    session.serve("B00\nK%n\n");
    const std::string owner = "[GpioConnectionHandler] ";
    EXPECT_EQ(capture.outputLines(),
              (Lines{owner + "New incoming connection: Start handling commands.",
                     owner + "Going to handle command [B00].",
                     owner + "Command handled, result was [DBG].",
                     owner + "Going to handle command [K%n].",
                     owner + "Connection " + session.identity() +
                         " is NOT interested in Input Pin Changes anymore.",
                     owner + "Command handled, result was [KK].",
                     owner + "EOF reached. Going to wait for a new incoming connection."}));
    EXPECT_EQ(capture.error(), "");
}

TEST(ConnectionHandlerDebug, TellsOfInterestAndOfEachQuestionForIt) {
    const ScopedDebug debug;
    const LogCapture capture;
    Session session(3);
    session.handler.isListeningForInputPinChanges();
    session.serve("L00R00");
    session.handler.isListeningForInputPinChanges();
    Lines lines = capture.outputLines();
    std::erase_if(lines, [&](const std::string& line) {
        return line.find(session.identity()) == std::string::npos;
    });
    const std::string owner = "[GpioConnectionHandler] ";
    EXPECT_EQ(lines, (Lines{owner + session.identity() + " isListeningForInputPinChanges == 0",
                            owner + "Connection " + session.identity() +
                                " is interested in Input Pin Changes.",
                            owner + session.identity() + " isListeningForInputPinChanges == 1"}));
}
