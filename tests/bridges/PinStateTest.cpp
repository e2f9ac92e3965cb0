#include "PinState.h"

#include <gtest/gtest.h>

#include "Log.h"

TEST(PinState, WarnsOfEachPinThatTheServerDoesNotHave) {
    bridge::setLogName("bridge");
    bridge::PinState state;
    state.backEnd = gpioclient::BackEnd::Test;
    testing::internal::CaptureStderr();
    bridge::warnOfMissingPins(state, {{0, "Pump"}, {15, ""}, {16, ""}, {28, "Door"}});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "bridge: the server has no pin 16; it has pins 0 to 15\n"
              "bridge: the server has no pin 28 for the name Door; it has pins 0 to 15\n");
}
