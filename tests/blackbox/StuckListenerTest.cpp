#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Client.h"
#include "support/LeastTime.h"
#include "support/LogLines.h"
#include "support/NetworkNamespace.h"
#include "support/Scale.h"
#include "support/ServerProcess.h"
#include "support/VirtualBoard.h"

using namespace std::chrono_literals;
using support::BrokenPipe;
using support::Client;
using support::leastTime;
using support::ServerOptions;
using support::ServerProcess;
using support::VirtualBoard;

namespace {

using Clock = std::chrono::steady_clock;

// What all that are stuck may cost the others, together: two seconds and a tenth of them. A build
// with a sanitizer is slow in between.
constexpr auto HOLD_LIMIT = support::SANITIZED ? 4000ms : 2200ms;

// A pause between two lines that is the server's, and not the machine's.
constexpr auto PAUSE = 300ms;

constexpr auto ARRIVAL_LIMIT = 30s;
constexpr int CHANGES = 200;

/// Makes the buffers of this network so small that they are soon full.
bool limitBuffers() {
    std::ofstream sending("/proc/sys/net/ipv4/tcp_wmem");
    std::ofstream receiving("/proc/sys/net/ipv4/tcp_rmem");
    sending << "4096 4096 4096" << std::flush;
    receiving << "2304 2304 2304" << std::flush;
    return sending.good() && receiving.good();
}

ServerOptions onBoard(const VirtualBoard& board) {
    ServerOptions options;
    options.arguments = {"--port=0", "--ftdi"};
    // As when it is started by hand: the server's own ending of a connection must not end it.
    options.brokenPipe = BrokenPipe::Default;
    options.environment = board.environment();
    return options;
}

std::string lineOf(int change) {
    return change % 2 == 0 ? "U2000|2000U" : "U2000|0000U";
}

/// Reads all change messages of a listener, and tells how long it had to wait between them.
class Observer {
public:
    explicit Observer(Client& client, std::chrono::milliseconds rest = 0ms)
        : thread_([this, &client, rest] { observe(client, rest); }) {}
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;
    ~Observer() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    /// The pauses, added up, once every line has come whole and in its order.
    Clock::duration hold() {
        thread_.join();
        EXPECT_EQ(inOrder_, CHANGES);
        std::cout << "the others were held up for "
                  << std::chrono::duration_cast<std::chrono::milliseconds>(hold_).count()
                  << " ms\n";
        return hold_;
    }

private:
    void observe(Client& client, std::chrono::milliseconds rest) {
        auto last = Clock::now();
        while (inOrder_ < CHANGES && client.receiveLine(ARRIVAL_LIMIT) == lineOf(inOrder_)) {
            const auto now = Clock::now();
            hold_ += inOrder_ > 0 && now - last > PAUSE ? now - last : 0ms;
            last = now;
            ++inOrder_;
            if (inOrder_ % 8 == 0) {
                std::this_thread::sleep_for(rest);
            }
        }
    }

    int inOrder_ = 0;
    Clock::duration hold_{};
    std::thread thread_;
};

/// Clients that come, listen, listen no more and go, for as long as it lives.
class Bustle {
public:
    explicit Bustle(std::uint16_t port) : thread_([this, port] { run(port); }) {}
    Bustle(const Bustle&) = delete;
    Bustle& operator=(const Bustle&) = delete;
    ~Bustle() {
        over_ = true;
        thread_.join();
        EXPECT_GT(rounds_, 0);
    }

private:
    void run(std::uint16_t port) {
        while (!over_) {
            Client client(port);
            client.send("L000K000");
            std::string received;
            while (received.find("KK") == std::string::npos) {
                const std::string more = client.receive(1, ARRIVAL_LIMIT);
                ASSERT_FALSE(more.empty()) << "only [" << received << "]";
                received += more;
            }
            ++rounds_;
        }
    }

    std::atomic<bool> over_ = false;
    int rounds_ = 0;
    std::thread thread_;
};

/// A listener in a process of its own that tells when it listens and reads, until it is stopped.
class ListeningProcess : public support::Process {
public:
    explicit ListeningProcess(std::uint16_t port)
        : Process({.executable = "/bin/bash",
                   .arguments = {"-c", "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(port) +
                                           "; printf L000 >&3; read -r <&3; echo listens;" +
                                           " exec cat <&3 >/dev/null"}}) {}
};

/// A server on a board, a client that listens and reads, and others coming and going.
class StuckListener : public testing::Test {
protected:
    void SetUp() override {
        if (!network_.whyNot().empty()) {
            GTEST_SKIP() << "no network namespace of its own: " << network_.whyNot();
        }
        if (!isSmall_) {
            GTEST_SKIP() << "the buffers cannot be set";
        }
        ASSERT_TRUE(server_.waitForOutput("Device is ready for actual use"));
        ASSERT_EQ(reading_.request("L000"), "LL");
    }

    /// A client that listens, with the smallest receive buffer there is.
    std::unique_ptr<Client> listener() {
        auto client = std::make_unique<Client>(server_.port(), 1);
        client->send("L000");
        EXPECT_EQ(client->receive(3), "LL\n");
        return client;
    }

    void changeInputs() const {
        for (int change = 0; change < CHANGES; ++change) {
            board_.command(change % 2 == 0 ? "inputs 01 00" : "inputs 00 00");
        }
    }

    /// Changes the inputs with all that going on, and returns how long the reading client was held
    /// up.
    Clock::duration holdDuringChanges() {
        const Bustle bustle(server_.port());
        Observer observer(reading_);
        changeInputs();
        return observer.hold();
    }

    Clock::duration holdWithStuck(int count) {
        std::vector<std::unique_ptr<Client>> stuck(static_cast<std::size_t>(count));
        std::generate(stuck.begin(), stuck.end(), [this] { return listener(); });
        const auto hold = holdDuringChanges();
        EXPECT_TRUE(haveEnded(stuck));
        return hold;
    }

    static bool haveEnded(const std::vector<std::unique_ptr<Client>>& clients) {
        return std::all_of(clients.begin(), clients.end(), [](const auto& client) {
            while (client->receive(1, ARRIVAL_LIMIT) != "") {
            }
            return client->waitForEnd();
        });
    }

    support::NetworkNamespace network_;
    bool isSmall_ = network_.whyNot().empty() && limitBuffers();
    VirtualBoard board_;
    ServerProcess server_{onBoard(board_)};
    Client reading_{server_.port()};
};

} // namespace

TEST_F(StuckListener, HoldsTheOthersUpForTwoSecondsOnce) {
    EXPECT_LE(leastTime(HOLD_LIMIT, [this] { return holdWithStuck(1); }), HOLD_LIMIT);
}

TEST_F(StuckListener, HoldsTheOthersUpNoLongerWithNineMore) {
    EXPECT_LE(leastTime(HOLD_LIMIT, [this] { return holdWithStuck(10); }), HOLD_LIMIT);
}

TEST_F(StuckListener, ThatDribblesIsDroppedToo) {
    const auto holdOnce = [this] {
        const std::unique_ptr<Client> dribbler = listener();
        std::atomic<bool> over = false;
        std::thread dribbling([&] {
            while (!over && !dribbler->receive(1, 1s).empty()) {
                std::this_thread::sleep_for(500ms);
            }
        });
        const auto hold = holdDuringChanges();
        over = true;
        dribbling.join();
        return hold;
    };
    EXPECT_LE(leastTime(HOLD_LIMIT, holdOnce), HOLD_LIMIT);
}

TEST_F(StuckListener, ThatWasStoppedIsDroppedToo) {
    const std::string failure = "Failed to send response to client.";
    const auto holdOnce = [&] {
        const std::size_t before = support::countOf(failure, server_.error());
        ListeningProcess process(server_.port());
        EXPECT_TRUE(process.waitForOutput("listens"));
        process.freeze();
        const auto hold = holdDuringChanges();
        EXPECT_TRUE(server_.waitForError(failure, before + 1));
        return hold;
    };
    EXPECT_LE(leastTime(HOLD_LIMIT, holdOnce), HOLD_LIMIT);
}

TEST_F(StuckListener, ThatIsMerelySlowLosesNothing) {
    const std::unique_ptr<Client> slow = listener();
    Observer slowObserver(*slow, 100ms);
    EXPECT_GT(holdDuringChanges(), 0ms) << "not slow enough to be waited for";
    slowObserver.hold();
}

TEST_F(StuckListener, DoesNotKeepTheBoardFromBeingRead) {
    const std::unique_ptr<Client> stuck = listener();
    Observer observer(reading_);
    changeInputs();
    board_.waitFor("queued = 0");
    observer.hold();
}

TEST_F(StuckListener, DoesNotHideTheLossOfTheBoard) {
    const std::unique_ptr<Client> stuck = listener();
    changeInputs();
    board_.command("unplug");
    EXPECT_TRUE(server_.waitForError("Closing server-socket (device unavailable)."));
}

TEST_F(StuckListener, ThatReadsNoAnswersIsEndedByItsOwnHandler) {
    const std::unique_ptr<Client> stuck = listener();
    std::string commands;
    for (int count = 0; count < 1000; ++count) {
        commands += "P000";
    }
    std::size_t sent = 0;
    while (sent < commands.size()) {
        const ssize_t count = ::send(stuck->descriptor(), commands.data() + sent,
                                     commands.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            break;
        }
        sent += static_cast<std::size_t>(count);
    }
    EXPECT_TRUE(server_.waitForOutput("was ended."));
    EXPECT_EQ(reading_.request("I000"), "I0010I");
}
