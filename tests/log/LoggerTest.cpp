#include "log/Logger.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "log/Identity.h"
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
    logger.debug("%s", std::string(1023, 'y').c_str());
    logger.debug("%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(capture.outputLines(),
              (Lines{"[Owner] [-7] seven FF", "[Owner] [%n%s%d%] 100%", "[Owner] first",
                     "second line", "[Owner] ", "[Owner] " + std::string(1023, 'y'),
                     "[Owner] " + std::string(1023, 'x')}));
}

TEST(Logger, LinesOfManyThreadsStayWhole) {
    constexpr int LINES_EACH = support::rounds(500, 100);
    const std::string filler(200, '.');
    const LogCapture capture;
    std::vector<std::thread> threads;
    Lines expected;
    for (const std::string owner : {"A", "B", "C", "D", "E", "F", "G", "H"}) {
        threads.emplace_back([owner, &filler] {
            Logger logger(owner);
            for (int line = 0; line < LINES_EACH; ++line) {
                logger.error("%d %s end", line, filler.c_str());
            }
        });
        for (int line = 0; line < LINES_EACH; ++line) {
            expected.push_back("[" + owner + "] " + std::to_string(line) + " " + filler + " end");
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    Lines lines = capture.errorLines();
    std::stable_sort(lines.begin(), lines.end(),
                     [](const std::string& one, const std::string& other) {
                         return one.substr(0, 3) < other.substr(0, 3);
                     });
    EXPECT_TRUE(lines == expected);
}

TEST(Identity, IsTheLowHalfOfTheAddress) {
    const int object = 0;
    EXPECT_EQ(static_cast<unsigned>(GpioLog::identityOf(&object)),
              static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&object)));
}
