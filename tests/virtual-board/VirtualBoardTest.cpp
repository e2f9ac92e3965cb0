#include "support/VirtualBoard.h"

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "FtdiBridge.h"
#include "support/Eventually.h"
#include "support/ProcessInfo.h"

namespace {

using support::VirtualBoard;

using namespace std::chrono_literals;
using namespace std::string_literals;
using Clock = std::chrono::steady_clock;

constexpr int FTX_PRODUCT = 0x6015;
constexpr int NOT_FOUND = -3;

std::size_t countDescriptors() {
    return support::descriptorCount(support::self());
}

std::string floodMessages(int count) {
    std::string result;
    for (int number = 1; number <= count; ++number) {
        result += {'I', static_cast<char>(number >> 8), static_cast<char>(number & 0xFF), 'i'};
    }
    return result;
}

class BoardOnUsb : public ::testing::Test {
protected:
    void startBoard(const std::vector<std::string>& options = {}) {
        // A bridge that is still there could take the end of its board for that of the new one.
        bridge_.reset();
        board_ = std::make_unique<VirtualBoard>(options);
        setenv("VIRTUAL_USB_DIRECTORY", board_->getDirectory().c_str(), 1);
        bridge_ = std::make_unique<FtdiBridge>();
    }

    void startOpenBoard(const std::vector<std::string>& options = {}) {
        startBoard(options);
        ASSERT_EQ(bridge_->open(FTX_PRODUCT), 0) << ftdi_get_error_string(bridge_->get());
    }

    void TearDown() override {
        bridge_.reset();
        board_.reset();
    }

    std::unique_ptr<VirtualBoard> board_;
    std::unique_ptr<FtdiBridge> bridge_;
};

TEST_F(BoardOnUsb, OtherProductIsNotFound) {
    startBoard();
    EXPECT_EQ(bridge_->open(0x6001), NOT_FOUND);
}

TEST_F(BoardOnUsb, BridgeIsRecognisedAsFtx) {
    startOpenBoard();
    EXPECT_EQ(bridge_->get()->type, TYPE_230X);
}

TEST_F(BoardOnUsb, PacketLengthIsThatOfFullSpeed) {
    startOpenBoard();
    EXPECT_EQ(bridge_->get()->max_packet_size, 64U);
}

TEST_F(BoardOnUsb, BoardPutBackIsFoundByTheSameContext) {
    startOpenBoard();
    board_->command("unplug");
    bridge_->close();
    board_->command("plug");
    EXPECT_EQ(bridge_->openWhenThere(FTX_PRODUCT), 0);
}

// libusb lists the devices, takes each by its name and asks it for its node without a look.
TEST_F(BoardOnUsb, BoardThatWentSinceItWasListedIsAskedForItsNodeInVain) {
    startBoard({"--unplugged"});
    const auto deviceOf = reinterpret_cast<void* (*)(void*, const char*)>(
        dlsym(RTLD_DEFAULT, "udev_device_new_from_syspath"));
    const auto nodeOf =
        reinterpret_cast<const char* (*)(void*)>(dlsym(RTLD_DEFAULT, "udev_device_get_devnode"));
    EXPECT_EQ(nodeOf(deviceOf(nullptr, "/sys/bus/usb/devices/1-1")), nullptr);
}

TEST_F(BoardOnUsb, ReadWithoutDataReturnsAtOnceWithNothing) {
    startOpenBoard();
    unsigned char byte = 0;
    EXPECT_EQ(ftdi_read_data(bridge_->get(), &byte, 1), 0);
}

TEST_F(BoardOnUsb, StatusPacketsAreALatencyApart) {
    startOpenBoard();
    unsigned char byte = 0;
    auto* read = bridge_->submitRead(&byte, 1);
    const auto first = board_->value("status-packets");
    const auto start = Clock::now();
    EXPECT_TRUE(support::eventually([&] {
        bridge_->isDoneWithin(read, 5ms);
        return board_->value("status-packets") >= first + 21;
    }));
    EXPECT_GE(Clock::now() - start, 20 * 16ms);
    board_->command("send 00");
    bridge_->finish(read);
}

TEST_F(BoardOnUsb, WaitingReaderTakesHardlyAnyProcessorTime) {
    startOpenBoard();
    unsigned char byte = 0;
    auto* read = bridge_->submitRead(&byte, 1);
    const double before = support::processorSeconds(support::self());
    ASSERT_FALSE(bridge_->isDoneWithin(read, 2s));
    EXPECT_LT(support::processorSeconds(support::self()) - before, 0.2);
    board_->command("send 00");
    bridge_->finish(read);
}

struct Dialogue {
    std::string name;
    std::vector<std::string> options;
    std::string command; ///< to the board, if any
    std::string written;
    std::string read;

    friend void PrintTo(const Dialogue& dialogue, std::ostream* stream) {
        *stream << dialogue.name;
    }
};

class VirtualBoardDialogue : public BoardOnUsb, public ::testing::WithParamInterface<Dialogue> {};

TEST_P(VirtualBoardDialogue, IsThatOfTheFirmware) {
    const auto& [name, options, command, written, read] = GetParam();
    startOpenBoard(options);
    if (!command.empty()) {
        board_->command(command);
    }
    for (std::size_t at = 0; at < written.size(); at += 4) {
        bridge_->write(written.substr(at, 4));
    }
    EXPECT_EQ(bridge_->read(static_cast<int>(read.size())), read);
}

const std::string PIN_0_HIGH = "W\0001w"s;
const std::string PIN_0_LOW = "W\0000w"s;

INSTANTIATE_TEST_SUITE_P(
    Of, VirtualBoardDialogue,
    ::testing::Values(
        Dialogue{"ReadRequest", {"--inputs", "12", "34"}, "", "R00r", "R\x12\x34r"},
        Dialogue{"VersionRequest", {"--firmware", "2", "5"}, "", "V00v", "V\2\5v"},
        Dialogue{"RequestAfterNoise", {}, "", "xRV00v", "V\1\0v"s},
        Dialogue{"IgnoredRequest", {}, "ignore R on", "R00rV00v", "V\1\0v"s},
        Dialogue{"InputChange", {}, "inputs 01 80", "", "I\x01\x80i"},
        Dialogue{"QuietInputChange", {}, "inputs 01 80 quiet", "R00r", "R\x01\x80r"},
        Dialogue{"WiredInput", {"--wire", "1", "13"}, "", PIN_0_HIGH + PIN_0_LOW, "I\1\0iI\0\0i"s},
        Dialogue{"WireByTheNumbersOfClients", {"--wire", "0", "28"}, "", "W\x0C\x31w", "I\0\x80i"s},
        Dialogue{"OneHighOutputOfTwoWires",
                 {"--wire", "1", "13", "--wire", "2", "13", "--inputs", "00", "01"},
                 "",
                 "W\1\x31w",
                 "I\1\1i"},
        Dialogue{"WrittenOutputOfAnUnchangedInput",
                 {"--wire", "1", "13"},
                 "",
                 PIN_0_LOW + "V00v",
                 "V\1\0v"s},
        Dialogue{
            "WireTakenOff", {"--wire", "1", "13"}, "wire off", PIN_0_HIGH + "R00r", "R\0\0r"s}),
    [](const auto& test) { return test.param.name; });

TEST_F(BoardOnUsb, RequestInTwoWritesIsAnswered) {
    startOpenBoard();
    bridge_->write("V0");
    bridge_->write("0v");
    EXPECT_EQ(bridge_->read(4), "V\x01\0v"s);
}

TEST_F(BoardOnUsb, WireToAHighOutputIsReported) {
    startOpenBoard();
    bridge_->write("W\0"
                   "1w"s);
    board_->command("wait output-0 = 1");
    board_->command("wire 1 14");
    EXPECT_EQ(bridge_->read(4), "I\x02\0i"s);
}

TEST_F(BoardOnUsb, WireBetweenPinsThatDoNotExistIsRefused) {
    startOpenBoard();
    for (const char* const pins : {"13 13", "1 12", "1 29"}) {
        EXPECT_THROW(board_->command("wire "s + pins), std::runtime_error) << pins;
    }
}

TEST_F(BoardOnUsb, LongDataKeepsItsOrder) {
    startOpenBoard();
    std::string expected;
    std::string command = "send ";
    for (int value = 0; value < 200; ++value) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned int>(value));
        command += digits;
        expected.push_back(static_cast<char>(value));
    }
    board_->command(command);
    EXPECT_EQ(bridge_->read(200), expected);
}

TEST_F(BoardOnUsb, LongDataComesInPacketsOf62Bytes) {
    startOpenBoard();
    board_->command("send " + std::string(2 * 130, '5'));
    bridge_->read(130);
    EXPECT_EQ(board_->value("data-packets"), 3U);
}

TEST_F(BoardOnUsb, FullPacketIsEndedByAShortOne) {
    startOpenBoard();
    board_->command("send " + std::string(2 * 62, '5'));
    EXPECT_EQ(bridge_->read(62), std::string(62, '\x55'));
    EXPECT_GE(board_->value("status-packets"), 1U);
}

TEST_F(BoardOnUsb, PurgeDropsWhatWaitsForTheHost) {
    startOpenBoard();
    board_->command("send 41424344");
    bridge_->purge();
    EXPECT_EQ(board_->value("purged-bytes"), 4U);
}

TEST_F(BoardOnUsb, UnplugEndsAPendingWrite) {
    startOpenBoard();
    board_->command("stall writes on");
    auto* write = bridge_->submitWrite("V00v");
    board_->waitFor("pending-writes = 1");
    board_->command("unplug");
    EXPECT_EQ(bridge_->finish(write), -1);
}

TEST_F(BoardOnUsb, NothingCanBeSubmittedAfterAnUnplug) {
    startOpenBoard();
    board_->command("unplug");
    EXPECT_EQ(bridge_->submitWrite("V00v"), nullptr);
}

TEST_F(BoardOnUsb, UnplugInTheMiddleOfAMessageToTheHostDeliversItsStart) {
    startOpenBoard();
    board_->command("cut 4901");
    EXPECT_EQ(bridge_->read(2), "I\x01");
    board_->waitFor("plugged = 0");
}

TEST_F(BoardOnUsb, ClaimIsFreeOnceTheFirstHandleIsClosed) {
    startOpenBoard();
    bridge_->close();
    FtdiBridge second;
    EXPECT_EQ(second.open(FTX_PRODUCT), 0);
}

TEST_F(BoardOnUsb, StalledWriteEndsWhenTheStallDoes) {
    startOpenBoard();
    board_->command("stall writes on");
    auto* write = bridge_->submitWrite("V00v");
    EXPECT_FALSE(bridge_->isDoneWithin(write, 100ms));
    board_->command("stall writes off");
    EXPECT_EQ(bridge_->finish(write), 4);
}

TEST_F(BoardOnUsb, StalledWriteDoesNotHoldUpAReader) {
    startOpenBoard();
    board_->command("stall writes on");
    auto* write = bridge_->submitWrite("V00v");
    board_->command("inputs 01 02");
    EXPECT_EQ(bridge_->read(4), "I\x01\x02i");
    board_->command("stall writes off");
    bridge_->finish(write);
}

TEST_F(BoardOnUsb, RestartClearsTheOutputs) {
    startOpenBoard({"--restart", "stay"});
    bridge_->write("W\x01"
                   "1w");
    bridge_->write("K\0\0k"s);
    board_->waitFor("restarts = 1");
    EXPECT_EQ(board_->value("output-1"), 0U);
}

TEST_F(BoardOnUsb, IgnoredRestartIsOnlyCounted) {
    startOpenBoard({"--restart", "ignore"});
    bridge_->write("K\0\0k"s);
    bridge_->write("V00v");
    bridge_->read(4);
    EXPECT_EQ(board_->command("stats requests-K restarts"), "1 0");
}

TEST_F(BoardOnUsb, FloodAtFullSpeedLosesNothing) {
    startOpenBoard();
    board_->command("flood max 2000");
    EXPECT_EQ(bridge_->read(4 * 2000), floodMessages(2000));
}

TEST_F(BoardOnUsb, FullBufferLosesWhatComesLater) {
    startOpenBoard();
    board_->command("capacity 4");
    board_->command("send 414243444546");
    EXPECT_EQ(bridge_->read(4), "ABCD");
    EXPECT_EQ(board_->value("overruns"), 2U);
}

TEST_F(BoardOnUsb, OpenDeviceCostsOneDescriptor) {
    startBoard();
    const auto before = countDescriptors();
    bridge_->open(FTX_PRODUCT);
    EXPECT_EQ(countDescriptors(), before + 1);
}

TEST_F(BoardOnUsb, PullOutsAndReturnsLeakNoDescriptors) {
    startOpenBoard();
    const auto before = countDescriptors();
    for (int round = 0; round < 50; ++round) {
        unsigned char byte = 0;
        auto* read = bridge_->submitRead(&byte, 1);
        board_->command("unplug");
        // 0 when a status packet came first: the library fails to submit again and calls it a day.
        ASSERT_NE(bridge_->finish(read), FtdiBridge::NOT_FINISHED);
        bridge_->close();
        board_->command("plug");
        ASSERT_EQ(bridge_->openWhenThere(FTX_PRODUCT), 0);
    }
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_EQ(board_->value("handles"), 1U);
}

TEST_F(BoardOnUsb, BoardProcessThatEndsLooksLikeAnUnplug) {
    startOpenBoard();
    board_->command("stall reads on");
    unsigned char byte = 0;
    auto* read = bridge_->submitRead(&byte, 1);
    board_->command("quit");
    EXPECT_EQ(bridge_->finish(read), -1);
}

TEST_F(BoardOnUsb, BoardProcessThatEndsAtItsStartIsReportedWithItsReason) {
    try {
        startBoard({"--nonsense"});
        FAIL() << "a board that cannot be";
    } catch (const std::runtime_error& problem) {
        EXPECT_STREQ(problem.what(),
                     "no virtual board: virtual-board: unknown command: nonsense\n");
    }
}

TEST_F(BoardOnUsb, WrongCommandIsRefused) {
    startBoard();
    EXPECT_THROW(board_->command("nonsense"), std::runtime_error);
}

TEST_F(BoardOnUsb, WaitThatDoesNotComeTrueTimesOut) {
    startBoard();
    EXPECT_THROW(board_->waitFor("claims >= 1", 10ms), std::runtime_error);
}

} // namespace
