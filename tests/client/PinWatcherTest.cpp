#include <algorithm>
#include <atomic>
#include <mutex>

#include <gtest/gtest.h>

#include <gpio-client/PinWatcher.h>

#include "support/Eventually.h"
#include "support/FakeServer.h"
#include "support/ReservedPort.h"

using gpioclient::BackEnd;
using gpioclient::Cause;
using gpioclient::Error;
using gpioclient::Level;
using gpioclient::PinEvent;
using gpioclient::PinWatcher;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds PATIENCE = support::patience;

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

    /// Hangs up instead of answering the next request.
    void hangUp() { hangUp_ = true; }

    /// The next client finds a server in test mode.
    void becomeTestBackEnd() { isBoard_ = false; }

    std::atomic<const char*> levels = "A00000000A\n";

private:
    void serve(const FakePeer& peer) {
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
            return "W1W\n";
        default:
            return "^INVALID COMMAND: " + command + "^";
        }
    }

    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
    std::atomic<bool> hangUp_ = false;
    std::atomic<bool> isBoard_ = true;
    FakeServer server_;
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

class PinWatcherTest : public testing::Test {
protected:
    void loseAndReturn(PinWatcher& watcher) {
        board_.hangUp();
        ASSERT_TRUE(waitUntilConnected(watcher, false));
        ASSERT_TRUE(waitUntilConnected(watcher, true));
    }

    FakeBoard board_;
};

} // namespace

TEST_F(PinWatcherTest, FindsOutTheBackEndOnlyOnce) {
    PinWatcher watcher(configFor(board_.endpoint()));
    loseAndReturn(watcher);
    const std::vector<std::string> commands = board_.commands();
    EXPECT_EQ(std::count(commands.begin(), commands.end(), "I00"), 1);
    EXPECT_EQ(std::count(commands.begin(), commands.end(), "L000"), 2);
}

TEST_F(PinWatcherTest, SendsNothingToFindOutABackEndThatIsGiven) {
    PinWatcher::Config config = configFor(board_.endpoint());
    config.options.backEnd = BackEnd::Board;
    const PinWatcher watcher(config);
    EXPECT_EQ(board_.commands(), (std::vector<std::string>{"L000", "P000", "A000"}));
}

TEST_F(PinWatcherTest, FindsAnotherBackEndInThePlaceOfTheFirst) {
    PinWatcher watcher(configFor(board_.endpoint()));
    board_.becomeTestBackEnd();
    loseAndReturn(watcher);
    EXPECT_EQ(watcher.backEnd(), BackEnd::Test);
    EXPECT_EQ(watcher.geometry().pinCount, 16U);
}

TEST_F(PinWatcherTest, TellsAfterALossWhatHasChangedMeanwhile) {
    PinWatcher watcher(configFor(board_.endpoint()));
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

TEST_F(PinWatcherTest, ThrowsTheLossWhenItIsNotToReconnect) {
    PinWatcher::Config config = configFor(board_.endpoint());
    config.reconnect = false;
    PinWatcher watcher(config);
    board_.hangUp();
    try {
        watcher.waitForEvents(PATIENCE);
        ADD_FAILURE();
    } catch (const Error& error) {
        EXPECT_EQ(error.cause(), Cause::ConnectionLost);
    }
}

TEST(PinWatcherWithoutServerTest, WaitsForTheFirstConnectionWhenAskedTo) {
    std::vector<std::string> news;
    const support::ReservedPort port;
    PinWatcher::Config config = configFor({"127.0.0.1", port.number()});
    config.startDisconnected = true;
    config.onConnectionNews = [&](const std::string& text) { news.push_back(text); };
    PinWatcher watcher(config);
    EXPECT_TRUE(watcher.waitForEvents(milliseconds(20)).empty());
    EXPECT_FALSE(watcher.isConnected());
    EXPECT_EQ(watcher.levels().known, 0U);

    const FakeBoard board(port.number());
    ASSERT_TRUE(waitUntilConnected(watcher, true));
    EXPECT_EQ(watcher.levels().known, gpioclient::BOARD_GEOMETRY.readable);
    const std::string server = config.endpoint.toString();
    EXPECT_EQ(news, (std::vector<std::string>{"cannot connect to " + server +
                                                  ": connection refused; trying to connect",
                                              "connected to " + server}));
}

TEST(PinWatcherWithoutServerTest, ThrowsWhenTheFirstConnectionFails) {
    const support::ReservedPort port;
    EXPECT_THROW(PinWatcher(configFor({"127.0.0.1", port.number()})), Error);
}

TEST(LevelsTest, TellsTheLevelOfAKnownPinOnly) {
    const gpioclient::Levels levels{0b10, 0b11};
    EXPECT_EQ(levels.at(0), Level::Low);
    EXPECT_EQ(levels.at(1), Level::High);
    EXPECT_EQ(levels.at(2), std::nullopt);
    EXPECT_EQ(levels.at(64), std::nullopt);
}
