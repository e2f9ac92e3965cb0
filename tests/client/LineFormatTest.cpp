#include "LineFormat.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include "Arguments.h"

using gpioclient::Level;
using gpioclient::PinEvent;
using std::chrono::system_clock;

namespace {

class FormattedLine : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC-2", 1);
        tzset();
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }

    const PinEvent event_{
        PinEvent::Kind::Edge, 13, Level::High,
        system_clock::time_point(std::chrono::duration_cast<system_clock::duration>(
            std::chrono::seconds(1'700'000'000) + std::chrono::nanoseconds(7'000'000)))};
};

} // namespace

TEST_F(FormattedLine, FillsInEachField) {
    EXPECT_EQ(LineFormat("%o %e %E %v %S %L %%").format(event_),
              "13 1 rising 1 1700000000.007000000 2023-11-15T00:13:20.007000000+02:00 %");
}

TEST_F(FormattedLine, ShowsTimesBeyondThirtyTwoBits) {
    PinEvent event = event_;
    event.time += std::chrono::hours(24) * 365 * 20;
    EXPECT_EQ(LineFormat("%S").format(event), "2330720000.007000000");
    EXPECT_EQ(LineFormat("%L").format(event), "2043-11-10T00:13:20.007000000+02:00");
}

TEST_F(FormattedLine, NumbersAFallingEdgeTwo) {
    PinEvent event = event_;
    event.level = Level::Low;
    EXPECT_EQ(LineFormat("%e %E %v").format(event), "2 falling 0");
}

TEST_F(FormattedLine, KeepsAllOtherText) {
    EXPECT_EQ(LineFormat("pin=%o;o %%o").format(event_), "pin=13;o %o");
}

TEST_F(FormattedLine, RefusesAFormatThatEndsInAPercentSign) {
    EXPECT_THROW(LineFormat("%o %"), UsageError);
}
