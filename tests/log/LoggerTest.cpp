#include "log/Logger.h"

#include <array>
#include <ctime>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log/Identity.h"
#include "support/Descriptor.h"
#include "support/LogCapture.h"
#include "support/LogLines.h"
#include "support/Scale.h"

using GpioLog::Logger;
using support::LogCapture;

namespace {

using Lines = std::vector<std::string>;

/// The local time in seconds that the log shows, at the start of a line.
std::time_t timeOf(const std::string& line) {
    std::tm local{};
    strptime(line.c_str(), "[%Y-%m-%d %H:%M:%S]", &local);
    local.tm_isdst = -1;
    return std::mktime(&local);
}

/// The process's time zone while it lives.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;
    ~ScopedTimeZone() {
        unsetenv("TZ");
        tzset();
    }
};

/// Puts a socket in the place of standard output or standard error that keeps the border between
/// two writes.
class PacketStream {
public:
    explicit PacketStream(int replaced) : stream_(replaced), saved_(dup(replaced)) {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0);
        reader_ = support::Descriptor(ends[0]);
        dup2(ends[1], stream_);
        ::close(ends[1]);
    }
    PacketStream(const PacketStream&) = delete;
    PacketStream& operator=(const PacketStream&) = delete;
    ~PacketStream() { restore(); }

    /// The next write; empty at the end.
    std::string next() const {
        std::string packet(4096, '\0');
        const ssize_t length = read(reader_.number(), packet.data(), packet.size());
        packet.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return packet;
    }

    void restore() {
        if (saved_.number() != -1) {
            dup2(saved_.number(), stream_);
            saved_.reset();
        }
    }

private:
    int stream_;
    support::Descriptor saved_;
    support::Descriptor reader_;
};

} // namespace

TEST(Logger, DebugGoesToStandardOutput) {
    const LogCapture capture;
    Logger("Launcher").debug("Launching in TEST mode.");
    EXPECT_EQ(capture.outputLines(), Lines{"[Launcher] Launching in TEST mode."});
    EXPECT_EQ(capture.error(), "");
}

TEST(Logger, ErrorGoesToStandardError) {
    const LogCapture capture;
    Logger("ftdi/FtdiCommandHandler").error("lost");
    EXPECT_EQ(capture.errorLines(), Lines{"[ftdi/FtdiCommandHandler] lost"});
    EXPECT_EQ(capture.output(), "");
}

TEST(Logger, LineHasTheLocalTime) {
    const ScopedTimeZone farFromGreenwich("AAA+11");
    const std::time_t before = std::time(nullptr);
    const LogCapture capture;
    Logger("Owner").debug("text");
    const std::string line = capture.output();
    const std::time_t after = std::time(nullptr);
    ASSERT_TRUE(support::startsWithTime(line)) << line;
    EXPECT_EQ(line.substr(21), "[Owner] text\n");
    EXPECT_GE(timeOf(line), before);
    EXPECT_LE(timeOf(line), after);
}

TEST(Logger, FollowsAChangeOfTheTimeZone) {
    const ScopedTimeZone greenwich("AAA0");
    const std::string before = Logger::currentTime();
    setenv("TZ", "BBB-20", 1);
    EXPECT_NE(std::string(Logger::currentTime()).substr(0, 13), before.substr(0, 13));
}

TEST(Logger, FormatsItsArguments) {
    const LogCapture capture;
    Logger logger("Owner");
    logger.debug("[%d] %s %X", -7, "seven", 255U);
    logger.debug("[%s] 100%%", "%n%s%d%");
    logger.debug("first\nsecond %s", "line");
    logger.debug("%s", "");
    logger.debug("%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(capture.outputLines(),
              (Lines{"[Owner] [-7] seven FF", "[Owner] [%n%s%d%] 100%", "[Owner] first",
                     "second line", "[Owner] ", "[Owner] " + std::string(1023, 'x')}));
}

TEST(Logger, LongestWholeMessageIsNotCut) {
    const LogCapture capture;
    const std::string text(1023, 'y');
    Logger("Owner").error("%s", text.c_str());
    EXPECT_EQ(capture.errorLines(), Lines{"[Owner] " + text});
}

TEST(Logger, LineIsOneWrite) {
    PacketStream stream(STDOUT_FILENO);
    Logger("Owner").debug("one %s", "line");
    const std::string packet = stream.next();
    stream.restore();
    EXPECT_EQ(support::logLines(packet), Lines{"[Owner] one line"});
    EXPECT_EQ(packet.back(), '\n');
}

TEST(Logger, LinesOfManyThreadsStayWhole) {
    constexpr int THREAD_COUNT = 8;
    constexpr int LINES_EACH = support::rounds(500, 100);
    const std::string filler(200, '.');
    PacketStream stream(STDERR_FILENO);
    std::vector<std::thread> threads;
    for (int number = 0; number < THREAD_COUNT; ++number) {
        threads.emplace_back([number, &filler] {
            Logger logger("Thread" + std::to_string(number));
            for (int line = 0; line < LINES_EACH; ++line) {
                logger.error("%d %s end", line, filler.c_str());
            }
        });
    }
    std::vector<int> nextOf(THREAD_COUNT, 0);
    int broken = 0;
    for (int packets = 0; packets < THREAD_COUNT * LINES_EACH; ++packets) {
        const std::string packet = stream.next();
        bool whole = false;
        for (int number = 0; number < THREAD_COUNT && !whole; ++number) {
            int& next = nextOf[static_cast<std::size_t>(number)];
            const std::string expected = "[Thread" + std::to_string(number) + "] " +
                                         std::to_string(next) + " " + filler + " end\n";
            whole = support::startsWithTime(packet) && packet.substr(21) == expected;
            next += whole ? 1 : 0;
        }
        broken += whole ? 0 : 1;
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    stream.restore();
    EXPECT_EQ(broken, 0);
}

TEST(Identity, IsTheLowHalfOfTheAddress) {
    const int object = 0;
    EXPECT_EQ(static_cast<unsigned>(GpioLog::identityOf(&object)),
              static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&object)));
}
