#include "test/TestCommandHandler.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/LogLines.h"
#include "support/Scale.h"
#include "support/ScopedDebug.h"

using support::LogCapture;
using support::ScopedDebug;

namespace {

const std::string DUMP_OF_PIN3 =
    "PINS: [0-O-0 1-O-0 2-O-0 3-I-1 4-O-0 5-O-0 6-O-0 7-O-0 8-O-0 9-O-0 10-O-0 11-O-0 12-O-0 "
    "13-O-0 14-O-0 15-O-0]\r";

class SimulatedBank : public testing::Test {
protected:
    TestCommandHandler bank_;
};

/// A bank whose pin 3 is an input and high, with debug output on.
class BankDump : public SimulatedBank {
protected:
    BankDump() {
        bank_.setDirection(3, 1);
        bank_.writePin(3, 1);
    }

    template <typename Operation> std::string dumpOf(Operation operation) {
        const ScopedDebug debug;
        const LogCapture capture;
        operation();
        EXPECT_EQ(capture.error(), "");
        return capture.output();
    }
};

} // namespace

TEST_F(SimulatedBank, IsAvailableAtOnceWithSixteenLowOutputs) {
    EXPECT_EQ(bank_.readAllPins(), 0U);
    EXPECT_EQ(bank_.getAllDirections(), 0U);
    EXPECT_EQ(bank_.getInputCount(), 0U);
    EXPECT_EQ(bank_.getOutputCount(), 16U);
    EXPECT_EQ(bank_.PROTOCOL_SIZE, 3U);
    EXPECT_EQ(bank_.isDeviceAvailable(), 1);
}

TEST_F(SimulatedBank, ValueIsStoredUnchangedOnInputsToo) {
    bank_.setDirection(3, 1);
    EXPECT_EQ(bank_.writePin(3, 7), 1);
    EXPECT_EQ(bank_.readPin(3), 7);
    EXPECT_EQ(bank_.writePin(3, -49), 1);
    EXPECT_EQ(bank_.readPin(3), -49);
}

TEST_F(SimulatedBank, OnlyOneIsHighInTheMask) {
    bank_.writePin(3, 7);
    EXPECT_EQ(bank_.handleCommand("R30"), "R1R");
    EXPECT_EQ(bank_.readAllPins(), 0U);
    bank_.writePin(15, 1);
    EXPECT_EQ(bank_.readAllPins(), 0x8000U);
}

TEST_F(SimulatedBank, AnyNonzeroDirectionIsInput) {
    EXPECT_EQ(bank_.setDirection(3, 5), 1);
    EXPECT_EQ(bank_.getDirection(3), 1);
    EXPECT_EQ(bank_.getAllDirections(), 8U);
    EXPECT_EQ(bank_.setDirection(3, -1), 1);
    EXPECT_EQ(bank_.getDirection(3), 1);
    EXPECT_EQ(bank_.setDirection(3, 0), 1);
    EXPECT_EQ(bank_.getDirection(3), 0);
}

TEST_F(SimulatedBank, CountsFollowTheDirections) {
    for (BYTE pin = 0; pin < 16; pin += 2) {
        bank_.setDirection(pin, 1);
    }
    EXPECT_EQ(bank_.getInputCount(), 8U);
    EXPECT_EQ(bank_.getOutputCount(), 8U);
    EXPECT_EQ(bank_.getAllDirections(), 0x5555U);
}

TEST_F(SimulatedBank, ChangesAreLevelsAndDirectionsThatNoRenewalTouches) {
    bank_.writePin(2, 1);
    bank_.setDirection(4, 1);
    bank_.renewOutputStates();
    DWORD values = 99;
    DWORD directions = 99;
    bank_.getPinChanges(&values, &directions);
    EXPECT_EQ(values, 4U);
    EXPECT_EQ(directions, 16U);
}

TEST_F(SimulatedBank, PinsBeyondTheBankFailAndChangeNothing) {
    for (int pin = 16; pin < 256; ++pin) {
        const auto number = static_cast<BYTE>(pin);
        EXPECT_EQ(bank_.writePin(number, 1), 0) << pin;
        EXPECT_EQ(bank_.setDirection(number, 1), 0) << pin;
        EXPECT_EQ(bank_.readPin(number), 0) << pin;
        EXPECT_EQ(bank_.getDirection(number), 0) << pin;
    }
    EXPECT_EQ(bank_.readAllPins(), 0U);
    EXPECT_EQ(bank_.getAllDirections(), 0U);
}

TEST_F(SimulatedBank, ConcurrentWritersLoseNothing) {
    constexpr int TIMES = support::rounds(2000, 200);
    std::vector<std::thread> writers;
    for (BYTE pin = 0; pin < 8; ++pin) {
        writers.emplace_back([this, pin] {
            for (int time = 0; time < TIMES; ++time) {
                bank_.writePin(pin, time % 2);
                bank_.setDirection(pin, 1);
            }
            bank_.writePin(pin, 1);
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_EQ(bank_.readAllPins(), 0xffU);
    EXPECT_EQ(bank_.getAllDirections(), 0xffU);
}

TEST_F(BankDump, IsWrittenOnceByEachOperation) {
    EXPECT_EQ(dumpOf([this] { bank_.readPin(0); }), DUMP_OF_PIN3);
    EXPECT_EQ(dumpOf([this] { bank_.readAllPins(); }), DUMP_OF_PIN3);
    EXPECT_EQ(dumpOf([this] { bank_.getDirection(3); }), DUMP_OF_PIN3);
    EXPECT_EQ(dumpOf([this] { bank_.getAllDirections(); }), DUMP_OF_PIN3);
    EXPECT_EQ(dumpOf([this] { bank_.getInputCount(); }), DUMP_OF_PIN3);
    EXPECT_EQ(dumpOf([this] { bank_.getOutputCount(); }), DUMP_OF_PIN3);
}

TEST_F(BankDump, ShowsWhatAWriteHasStored) {
    bank_.writePin(3, 0);
    bank_.setDirection(3, 0);
    dumpOf([this] { bank_.writePin(3, 1); });
    EXPECT_EQ(dumpOf([this] { bank_.setDirection(3, 1); }), DUMP_OF_PIN3);
    const std::string dump = dumpOf([this] { bank_.writePin(15, 7); });
    EXPECT_EQ(support::countOf(" 15-O-7]\r", dump), 1U);
    EXPECT_EQ(support::countOf("\r", dump), 1U);
}

TEST_F(BankDump, IsNotWrittenByTheMonitorsOperations) {
    EXPECT_EQ(dumpOf([this] {
                  DWORD values = 0;
                  DWORD directions = 0;
                  bank_.getPinChanges(&values, &directions);
                  bank_.renewOutputStates();
                  bank_.isDeviceAvailable();
              }),
              "");
}

TEST_F(BankDump, NeedsDebugOutput) {
    const LogCapture capture;
    bank_.readPin(3);
    EXPECT_EQ(capture.output(), "");
}
