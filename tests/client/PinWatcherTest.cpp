#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include <gpio-client/PinWatcher.h>

#include "Harness.h"
#include "support/Eventually.h"

using gpioclient::BackEnd;
using gpioclient::Cause;
using gpioclient::Error;
using gpioclient::Level;
using gpioclient::PinEvent;
using gpioclient::PinWatcher;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds PATIENCE = support::PATIENCE;

/// A board that answers every request, with these levels of port A, and notes what it was asked.
class FakeBoard {
public:
    explicit FakeBoard(std::uint16_t port = 0)
        : server_([this](auto& peer) { serve(peer); }, port) {}

    gpioclient::Endpoint endpoint() const { return server_.endpoint(); }

    std::vector<std::string> commands() const {
        const std::lock_guard lock(mutex_);
        return commands_;
    }

    /// Tells of a change.
    void notify(const std::string& notice) {
        const std::lock_guard lock(mutex_);
        notice_ = notice;
    }

    /// Hangs up instead of answering the next request.
    void hangUp() { hangUp_ = true; }

    /// The next client finds a server in test mode.
    void becomeTestBackEnd() { isBoard_ = false; }

    std::atomic<const char*> levels = "A00000000A\n";
    std::atomic<bool> writes = true;

private:
    void serve(const support::FakePeer& peer) {
        if (!isBoard_) {
            // In test mode a command has three characters; the fourth is one of its own.
            peer.send(peer.receive() == "I00" ? "I0000I\n" : "LL\n^INVALLID COMMAND: 0^");
            peer.beTestBackEnd();
            return;
        }
        for (std::string command = peer.receive(); !command.empty(); command = peer.receive()) {
            note(command);
            if (hangUp_.exchange(false)) {
                return;
            }
            peer.send(answer(command));
            const std::lock_guard lock(mutex_);
            peer.send(std::exchange(notice_, {}));
        }
    }

    void note(const std::string& command) {
        const std::lock_guard lock(mutex_);
        commands_.push_back(command);
    }

    std::string answer(const std::string& command) const {
        switch (command.size() == 4 ? command[0] : '\0') {
        case 'A':
            return levels.load();
        case 'L':
            return "LL\n";
        case 'P':
            return "Pffffffffffffe000P\n";
        case 'W':
            return writes ? "W1W\n" : "W0W\n";
        default:
            return "^INVALID COMMAND: " + command + "^";
        }
    }

    mutable std::mutex mutex_;
    std::string notice_;
    std::vector<std::string> commands_;
    std::atomic<bool> hangUp_ = false;
    std::atomic<bool> isBoard_ = true;
    support::FakeServer server_;
};

PinWatcher::Config configFor(const gpioclient::Endpoint& endpoint) {
    PinWatcher::Config config;
    config.endpoint = endpoint;
    config.pollInterval = milliseconds(10);
    config.reconnect = true;
    config.firstRetryInterval = milliseconds(1);
    config.longestRetryInterval = milliseconds(10);
    return config;
}

bool waitUntilConnected(PinWatcher& watcher, bool connected) {
    return support::eventually([&] {
        watcher.waitForEvents(milliseconds(10));
        return watcher.isConnected() == connected;
    });
}

class PinWatcherOnBoard : public testing::Test {
protected:
    void loseAndReturn(PinWatcher& watcher) {
        board_.hangUp();
        ASSERT_TRUE(waitUntilConnected(watcher, false));
        ASSERT_TRUE(waitUntilConnected(watcher, true));
    }

    FakeBoard board_;
    PinWatcher::Config config_ = configFor(board_.endpoint());
};

class PinWatcherWithoutServer : public testing::Test {
protected:
    PinWatcherWithoutServer() { config_.startDisconnected = true; }

    support::ReservedPort port_;
    PinWatcher::Config config_ = configFor({"127.0.0.1", port_.number()});
};

} // namespace

TEST_F(PinWatcherOnBoard, FindsOutTheBackEndOnlyOnce) {
    PinWatcher watcher(config_);
    loseAndReturn(watcher);
    const std::vector<std::string> commands = board_.commands();
    EXPECT_EQ(std::count(commands.begin(), commands.end(), "I00"), 1);
    EXPECT_EQ(std::count(commands.begin(), commands.end(), "L000"), 2);
}

TEST_F(PinWatcherOnBoard, SendsNothingToFindOutABackEndThatIsGiven) {
    config_.options.backEnd = BackEnd::Board;
    const PinWatcher watcher(config_);
    EXPECT_EQ(board_.commands(), (std::vector<std::string>{"L000", "P000", "A000"}));
}

TEST_F(PinWatcherOnBoard, FindsAnotherBackEndInThePlaceOfTheFirst) {
    PinWatcher watcher(config_);
    board_.becomeTestBackEnd();
    loseAndReturn(watcher);
    EXPECT_EQ(watcher.backEnd(), BackEnd::Test);
    EXPECT_EQ(watcher.geometry().pinCount, 16U);
}

TEST_F(PinWatcherOnBoard, TellsAfterALossWhatHasChangedMeanwhile) {
    PinWatcher watcher(config_);
    board_.hangUp();
    ASSERT_TRUE(waitUntilConnected(watcher, false));
    board_.levels = "A00000001A\n";
    std::vector<PinEvent> events;
    ASSERT_TRUE(support::eventually([&] {
        events = watcher.waitForEvents(PATIENCE);
        return watcher.isConnected();
    }));
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].pin, 13U);
    EXPECT_EQ(events[0].level, Level::High);
}

TEST_F(PinWatcherOnBoard, ReadsAllPinsAtTheNextWaitWhenAskedTo) {
    config_.pollInterval = PATIENCE;
    config_.firstPollInterval = PATIENCE;
    PinWatcher watcher(config_);
    board_.levels = "A00000001A\n";
    EXPECT_TRUE(watcher.waitForEvents(milliseconds(0)).empty());
    watcher.readSoon();
    EXPECT_EQ(watcher.waitForEvents(milliseconds(0)).size(), 1U);
}

TEST_F(PinWatcherOnBoard, ThrowsTheLossWhenItIsNotToReconnect) {
    config_.reconnect = false;
    PinWatcher watcher(config_);
    board_.hangUp();
    EXPECT_EQ(causeOf([&] { watcher.waitForEvents(PATIENCE); }), Cause::ConnectionLost);
}

TEST_F(PinWatcherOnBoard, KnowsWhatItHasWritten) {
    PinWatcher watcher(config_);
    watcher.write(0, Level::High);
    EXPECT_EQ(watcher.levels().at(0), Level::High);
    EXPECT_TRUE(watcher.waitForEvents(milliseconds(30)).empty());
    EXPECT_EQ(watcher.levels().at(0), Level::High);
}

TEST_F(PinWatcherOnBoard, KnowsNothingNewFromAWriteThatFailed) {
    PinWatcher watcher(config_);
    board_.writes = false;
    EXPECT_THROW(watcher.write(0, Level::High), Error);
    EXPECT_EQ(watcher.levels().at(0), std::nullopt);
    EXPECT_TRUE(watcher.isConnected());
}

TEST_F(PinWatcherOnBoard, TakesALossInAWriteForALossAndRefusesWritesUntilItsEnd) {
    PinWatcher watcher(config_);
    board_.hangUp();
    EXPECT_THROW(watcher.write(1, Level::High), Error);
    EXPECT_FALSE(watcher.isConnected());
    EXPECT_THROW(watcher.write(1, Level::High), Error);
    ASSERT_TRUE(waitUntilConnected(watcher, true));
    EXPECT_NO_THROW(watcher.write(1, Level::High));
}

TEST_F(PinWatcherOnBoard, KnowsNoOutputOfABoardFromALossUntilItIsSeenToChange) {
    board_.levels = "A00010000A\n";
    PinWatcher watcher(config_);
    EXPECT_EQ(watcher.levels().at(1), Level::High);
    board_.hangUp();
    ASSERT_TRUE(waitUntilConnected(watcher, false));
    EXPECT_EQ(watcher.levels().at(1), std::nullopt);
    ASSERT_TRUE(waitUntilConnected(watcher, true));
    EXPECT_EQ(watcher.levels().at(1), std::nullopt);

    board_.levels = "A00000000A\n";
    const std::vector<PinEvent> events = watcher.waitForEvents(PATIENCE);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].pin, 1U);
    EXPECT_EQ(watcher.levels().at(1), Level::Low);
    EXPECT_EQ(watcher.levels().at(2), std::nullopt);
}

TEST_F(PinWatcherOnBoard, ReadsOftenUntilTheFirstNoticeWhileAnInputIsHigh) {
    config_.pollInterval = PATIENCE;
    config_.firstPollInterval = milliseconds(10);
    board_.levels = "A00000001A\n";
    PinWatcher watcher(config_);
    board_.levels = "A00000000A\n";
    ASSERT_EQ(watcher.waitForEvents(PATIENCE).size(), 1U);
    const std::size_t asked = board_.commands().size();
    EXPECT_TRUE(watcher.waitForEvents(milliseconds(50)).empty());
    EXPECT_EQ(board_.commands().size(), asked);
}

TEST_F(PinWatcherOnBoard, ReadsSeldomFromTheFirstNoticeOn) {
    config_.pollInterval = PATIENCE;
    config_.firstPollInterval = milliseconds(10);
    board_.levels = "A00000001A\n";
    PinWatcher watcher(config_);
    board_.notify("U4000|00006000U\n");
    ASSERT_EQ(watcher.waitForEvents(PATIENCE).size(), 1U);
    board_.levels = "A00000003A\n";
    watcher.waitForEvents(milliseconds(30));
    const std::size_t asked = board_.commands().size();
    EXPECT_TRUE(watcher.waitForEvents(milliseconds(50)).empty());
    EXPECT_EQ(board_.commands().size(), asked);
}

TEST_F(PinWatcherOnBoard, AnotherThreadEndsTheWait) {
    config_.pollInterval = PATIENCE;
    PinWatcher watcher(config_);
    for (int i = 0; i < 100; ++i) {
        const auto start = std::chrono::steady_clock::now();
        const std::jthread other([&] { watcher.wake(); });
        EXPECT_TRUE(watcher.waitForEvents(PATIENCE).empty());
        EXPECT_LT(std::chrono::steady_clock::now() - start, PATIENCE);
    }
}

TEST_F(PinWatcherWithoutServer, AnotherThreadEndsThePauseBetweenAttempts) {
    config_.firstRetryInterval = 2 * PATIENCE;
    PinWatcher watcher(config_);
    watcher.waitForEvents(milliseconds(0));
    const auto start = std::chrono::steady_clock::now();
    const std::jthread other([&] { watcher.wake(); });
    watcher.waitForEvents(PATIENCE);
    EXPECT_LT(std::chrono::steady_clock::now() - start, PATIENCE);
}

TEST_F(PinWatcherWithoutServer, CancellingEndsThePauseBetweenAttempts) {
    std::atomic<bool> asked = false;
    config_.firstRetryInterval = 2 * PATIENCE;
    config_.options.isCancelled = [&] { return asked.load(); };
    PinWatcher watcher(config_);
    watcher.waitForEvents(milliseconds(0));
    asked = true;
    EXPECT_EQ(causeOf([&] { watcher.waitForEvents(PATIENCE); }), Cause::Cancelled);
}

TEST_F(PinWatcherWithoutServer, WaitsForTheFirstConnectionWhenAskedTo) {
    std::vector<std::string> news;
    config_.onConnectionNews = [&](const std::string& text) { news.push_back(text); };
    PinWatcher watcher(config_);
    EXPECT_TRUE(watcher.waitForEvents(milliseconds(20)).empty());
    EXPECT_FALSE(watcher.isConnected());
    EXPECT_EQ(watcher.levels().known, 0U);

    const FakeBoard board(port_.number());
    ASSERT_TRUE(waitUntilConnected(watcher, true));
    EXPECT_EQ(watcher.levels().known, gpioclient::BOARD_GEOMETRY.readable);
    const std::string server = config_.endpoint.toString();
    EXPECT_EQ(news, (std::vector<std::string>{"cannot connect to " + server +
                                                  ": connection refused; trying to connect",
                                              "connected to " + server}));
}

TEST_F(PinWatcherWithoutServer, ThrowsWhenTheFirstConnectionFails) {
    config_.startDisconnected = false;
    EXPECT_THROW(PinWatcher{config_}, Error);
}

TEST(PinWatcherOnTheTestBackEnd, KnowsTheDirectionThatItHasSet) {
    const RestartableServer server("--test");
    PinWatcher watcher(configFor(gpioclient::Endpoint::parse(server.address())));
    watcher.setDirection(3, gpioclient::Direction::Input);
    EXPECT_EQ(watcher.inputPins(), gpioclient::maskOf(3));
    watcher.setDirection(3, gpioclient::Direction::Output);
    EXPECT_EQ(watcher.inputPins(), 0U);
}

TEST(PinWatcherOnTheTestBackEnd, ReturnsWhenADirectionHasChanged) {
    const RestartableServer server("--test");
    PinWatcher::Config config = configFor(gpioclient::Endpoint::parse(server.address()));
    config.followDirections = true;
    PinWatcher watcher(config);
    gpioclient::Client(config.endpoint).setDirection(3, gpioclient::Direction::Input);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(watcher.waitForEvents(PATIENCE).empty());
    EXPECT_LT(std::chrono::steady_clock::now() - start, PATIENCE);
    EXPECT_EQ(watcher.inputPins(), gpioclient::maskOf(3));
}

TEST(Levels, TellsTheLevelOfAKnownPinOnly) {
    const gpioclient::Levels levels{0b10, 0b11};
    EXPECT_EQ(levels.at(0), Level::Low);
    EXPECT_EQ(levels.at(1), Level::High);
    EXPECT_EQ(levels.at(2), std::nullopt);
    EXPECT_EQ(levels.at(64), std::nullopt);
}
