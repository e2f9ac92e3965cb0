#include <algorithm>
#include <array>
#include <chrono>
#include <future>
#include <new>

#include "FtdiTest.h"

using namespace std::string_literals;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using Kind = FtdiStandIn::Read::Kind;

constexpr std::size_t MOST_DRAIN_READS = 100000;

const Steps VERSION_ASKED = {steps::debug("PID: 6001, requesting version info")};

class FtdiServiceConnect : public FtdiTest {
protected:
    void receiveVersion() { board_.receive("V\2\5v"); }

    static Steps versionAnswered() {
        return steps::sent(steps::VERSION_REQUEST) + steps::bytesRead(4) +
               steps::debug("Firmware Version: v2.5") + steps::debug("Connected: true,");
    }

    void expectFailure(bool withReset, const Steps& whole) {
        makeAvailable(service_);
        EXPECT_FALSE(withReset ? service_.initWithReset() : service_.initWithoutReset());
        EXPECT_EQ(journal_.steps(), whole);
        EXPECT_FALSE(service_.isDeviceAvailable());
    }

    FtdiService service_;
};

TEST_F(FtdiServiceConnect, LeavesTheLibraryAloneUntilAskedToConnect) {
    { const FtdiService other; }
    EXPECT_THAT(journal_.steps(), IsEmpty());
}

TEST_F(FtdiServiceConnect, StartsUnavailableWithAllPortsZero) {
    EXPECT_FALSE(service_.isDeviceAvailable());
    std::array<unsigned char, 4> ports = {1, 2, 3, 4};
    service_.getPins(&ports[0], &ports[1], &ports[2], &ports[3]);
    EXPECT_THAT(ports, testing::Each(0));
}

TEST_F(FtdiServiceConnect, HandsTheLibraryAContextOfZeros) {
    alignas(FtdiService) std::array<unsigned char, sizeof(FtdiService)> memory;
    memory.fill(0xA5);
    auto* const dirty = new (memory.data()) FtdiService;
    dirty->initWithoutReset();
    dirty->~FtdiService();
    EXPECT_TRUE(board_.sawZeroedContext);
}

TEST_F(FtdiServiceConnect, ClosesNothingWhenDestroyed) {
    receiveVersion();
    {
        FtdiService connected;
        connected.initWithoutReset();
        journal_.clear();
    }
    EXPECT_THAT(journal_.steps(), IsEmpty());
}

TEST_F(FtdiServiceConnect, ConnectsToEitherProductIdWithoutReset) {
    for (const auto& [product, number] : {std::pair(0x6001, "6001"), std::pair(0x6015, "6015")}) {
        board_.reset();
        board_.product = product;
        receiveVersion();
        FtdiService service;
        journal_.clear();
        EXPECT_TRUE(service.initWithoutReset());
        EXPECT_EQ(journal_.steps(),
                  steps::opening(product) + steps::nothingToFlush() +
                      steps::debug("PID: "s + number + ", requesting version info") +
                      versionAnswered());
        EXPECT_TRUE(service.isDeviceAvailable());
    }
}

TEST_F(FtdiServiceConnect, ReportsSuccessWhenTheBoardNeverTellsItsVersion) {
    board_.receive("............");
    EXPECT_TRUE(service_.initWithoutReset());
    EXPECT_EQ(journal_.steps(), steps::opening() + steps::nothingToFlush() + VERSION_ASKED +
                                    steps::twelveBytesFor(steps::VERSION_REQUEST) +
                                    steps::debug("Connected: false,"));
    EXPECT_TRUE(service_.isDeviceAvailable());
}

TEST_F(FtdiServiceConnect, ReportsSuccessWhenTheVersionRequestCannotBeSent) {
    board_.refuseNextWrite();
    EXPECT_TRUE(service_.initWithoutReset());
    EXPECT_EQ(journal_.steps(), steps::opening() + steps::nothingToFlush() + VERSION_ASKED +
                                    steps::refusedWrite(steps::VERSION_REQUEST) +
                                    steps::debug("Connected: false,"));
    EXPECT_TRUE(service_.isDeviceAvailable());
}

TEST_F(FtdiServiceConnect, CountsAsUnavailableUntilItIsConnected) {
    receiveVersion();
    bool early = true;
    board_.onCall("ftdi_write_data_submit", [&] { early = service_.isDeviceAvailable(); });
    service_.initWithoutReset();
    EXPECT_FALSE(early);
}

struct ConnectFailure {
    std::string name;
    std::vector<int> results; ///< of the function called last
    Steps calls;
    std::string line;

    std::string function() const { return calls.back().substr(0, calls.back().find(' ')); }

    /// What the failing step logs, and what still follows it.
    Steps outcome(bool hasText) const {
        if (name == "Init") {
            return {steps::error(line), "ftdi_set_interface 0"};
        }
        const std::string text = hasText ? "trouble in " + calls.back() : "(null)";
        return steps::explained(steps::error(line + " (" + text + ")"));
    }

    friend void PrintTo(const ConnectFailure& failure, std::ostream* stream) {
        *stream << failure.name;
    }
};

/// Each of the steps that both ways to connect begin with, failing alone; with and without a text.
class FtdiServiceConnectFailure
    : public FtdiServiceConnect,
      public testing::WithParamInterface<std::tuple<ConnectFailure, bool, bool>> {};

const Steps UNTIL_OPEN = {"ftdi_init", "ftdi_set_interface 0", "ftdi_usb_open 0403:6001"};

const Steps UNTIL_BAUDRATE =
    UNTIL_OPEN + Steps{"ftdi_usb_purge_buffers", "ftdi_set_baudrate 115200"};

const ConnectFailure CONNECT_FAILURES[] = {
    {"Init", {-1}, {"ftdi_init"}, "ftdi_init failed"},
    {"Open", {-5, -3}, UNTIL_OPEN + "ftdi_usb_open 0403:6015"s, "unable to open ftdi device: -3"},
    {"Purge", {-2}, UNTIL_OPEN + "ftdi_usb_purge_buffers"s, "Error when purging buffers: -2"},
    {"Baudrate", {-4}, UNTIL_BAUDRATE, "unable to set baudrate: -4"},
};

TEST_P(FtdiServiceConnectFailure, IsLoggedAndClosesTheLibraryAgain) {
    const auto& [failure, withReset, hasText] = GetParam();
    board_.hasErrorTexts = hasText;
    board_.answerWith(failure.function(), failure.results);
    expectFailure(withReset, failure.calls + failure.outcome(hasText) + steps::closing());
}

INSTANTIATE_TEST_SUITE_P(EachStep, FtdiServiceConnectFailure,
                         testing::Combine(testing::ValuesIn(CONNECT_FAILURES), testing::Bool(),
                                          testing::Bool()),
                         [](const auto& test) {
                             return std::get<0>(test.param).name +
                                    (std::get<1>(test.param) ? "WithReset" : "WithoutReset") +
                                    (std::get<2>(test.param) ? "" : "NoText");
                         });

/// Each of those steps failing when the device is opened anew after its restart. Nothing is closed
/// then, neither the handle that was not opened nor the one from before.
class FtdiServiceReopenFailure : public FtdiServiceConnect,
                                 public testing::WithParamInterface<ConnectFailure> {};

TEST_P(FtdiServiceReopenFailure, IsLoggedAndClosesNothing) {
    const ConnectFailure& failure = GetParam();
    makeAvailable(service_);
    board_.refuseNextWrite();
    board_.answerWith(failure.function(), {0}); // the first time
    board_.answerWith(failure.function(), failure.results);
    EXPECT_FALSE(service_.initWithReset());
    EXPECT_EQ(journal_.steps(),
              steps::opening() + steps::nothingToFlush() +
                  steps::debug("PID: 6001, sending reset commands until connection is lost.") +
                  steps::refusedWrite(steps::RESET_MESSAGE) + "sleep 10000000"s + failure.calls +
                  failure.outcome(true));
    EXPECT_FALSE(service_.isDeviceAvailable());
}

INSTANTIATE_TEST_SUITE_P(EachStep, FtdiServiceReopenFailure, testing::ValuesIn(CONNECT_FAILURES),
                         [](const auto& test) { return test.param.name; });

TEST_F(FtdiServiceConnect, DrainsWaitingBytesFourAtATime) {
    board_.leave({{4, "I\x12\xABi"}, {4, "abcd"}, {3, "xyz"}, {0, ""}});
    receiveVersion();
    EXPECT_TRUE(service_.initWithoutReset());
    const Steps flushed = {"ftdi_read_data 4", steps::debug("flushed msg I 12 AB i"),
                           "ftdi_read_data 4", steps::debug("flushed msg a 62 63 d"),
                           "ftdi_read_data 4", steps::debug("flushed 3 bytes")};
    EXPECT_EQ(journal_.steps(), steps::opening() + flushed + steps::nothingToFlush() +
                                    VERSION_ASKED + versionAnswered());
}

TEST_F(FtdiServiceConnect, LogsWhatItDrains) {
    board_.leave(
        {{4, "\0\0\0\0"s}, {1, "a"}, {-1, ""}, {2, "ab"}, {4, "abcd"}, {-110, ""}, {3, "abc"}});
    receiveVersion();
    EXPECT_TRUE(service_.initWithoutReset());
    Steps lines;
    for (const auto& text : {"msg \0 00 00 \0"s, "1 bytes"s, "-1 bytes"s, "2 bytes"s,
                             "msg a 62 63 d"s, "-110 bytes"s, "3 bytes"s, "0 bytes"s}) {
        lines.push_back(steps::debug("flushed " + text));
    }
    EXPECT_EQ(journal_.stepsWith("debug FtdiService: flushed"), lines);
}

TEST_F(FtdiServiceConnect, CountsDrainErrorsAnewAfterEachSuccess) {
    for (int round = 0; round < 5; ++round) {
        board_.leave(std::vector<FtdiStandIn::Leftover>(9, {-1, ""}));
        board_.leave({{4, "abcd"}});
    }
    receiveVersion();
    EXPECT_TRUE(service_.initWithoutReset());
}

TEST_F(FtdiServiceConnect, GivesUpAfterTenDrainErrorsInARow) {
    board_.keepLeaving({-1, ""});
    const Steps whole = steps::opening() +
                        repeated(10, {"ftdi_read_data 4", steps::debug("flushed -1 bytes")}) +
                        steps::closing();
    expectFailure(false, whole);
    expectFailure(true, whole);
}

TEST_F(FtdiServiceConnect, EndsDrainingABoardThatNeverFallsSilent) {
    board_.keepLeaving({4, "abcd"});
    receiveVersion();
    EXPECT_TRUE(service_.initWithoutReset());
    EXPECT_THAT(journal_.stepsWith("ftdi_read_data 4"), SizeIs(MOST_DRAIN_READS));
}

TEST_F(FtdiServiceConnect, ConnectsToANoisyBoardWhoseLastReadErred) {
    board_.leave(std::vector<FtdiStandIn::Leftover>(MOST_DRAIN_READS - 1, {4, "abcd"}));
    board_.keepLeaving({-1, ""});
    receiveVersion();
    EXPECT_TRUE(service_.initWithoutReset());
    EXPECT_THAT(journal_.stepsWith("ftdi_read_data 4"), SizeIs(MOST_DRAIN_READS));
}

TEST_F(FtdiServiceConnect, ResetsTheFirstProductIdUntilASendOrItsTransferFails) {
    for (const bool refused : {true, false}) {
        board_.reset();
        journal_.clear();
        board_.acceptWrites(3);
        refused ? board_.refuseNextWrite() : board_.finishNextWriteWith(-1);
        EXPECT_TRUE(service_.initWithReset());
        EXPECT_EQ(journal_.steps(),
                  steps::opening() + steps::nothingToFlush() +
                      steps::debug("PID: 6001, sending reset commands until connection is lost.") +
                      repeated(3, steps::sent(steps::RESET_MESSAGE)) +
                      (refused ? steps::refusedWrite(steps::RESET_MESSAGE)
                               : steps::failedWrite(steps::RESET_MESSAGE, -1)) +
                      "sleep 10000000"s + steps::opening());
        EXPECT_TRUE(service_.isDeviceAvailable());
    }
}

TEST_F(FtdiServiceConnect, ResetsTheSecondProductIdExactlyOnce) {
    board_.product = 0x6015;
    EXPECT_TRUE(service_.initWithReset());
    EXPECT_EQ(journal_.steps(), steps::opening(0x6015) + steps::nothingToFlush() +
                                    steps::debug("PID: 6015, sending one reset only") +
                                    steps::sent(steps::RESET_MESSAGE) + "sleep 10000000"s +
                                    steps::opening(0x6015));
    EXPECT_TRUE(service_.isDeviceAvailable());
}

TEST_F(FtdiServiceConnect, ClosesTheSecondProductIdWhenItsResetOrTheTransferFails) {
    for (const bool refused : {true, false}) {
        board_.reset();
        board_.product = 0x6015;
        makeAvailable(service_);
        refused ? board_.refuseNextWrite() : board_.finishNextWriteWith(-7);
        EXPECT_FALSE(service_.initWithReset());
        EXPECT_EQ(journal_.steps(), steps::opening(0x6015) + steps::nothingToFlush() +
                                        steps::debug("PID: 6015, sending one reset only") +
                                        (refused ? steps::refusedWrite(steps::RESET_MESSAGE)
                                                 : steps::failedWrite(steps::RESET_MESSAGE, -7)) +
                                        steps::closing());
        EXPECT_FALSE(service_.isDeviceAvailable());
    }
}

TEST_F(FtdiServiceConnect, TakesTheProductIdThatCameBackAfterTheReset) {
    board_.product = 0x6015;
    board_.onCall("ftdi_write_data_submit", [&] { board_.product = 0x6001; });
    EXPECT_TRUE(service_.initWithReset());
    receiveVersion();
    journal_.clear();
    EXPECT_TRUE(service_.initWithoutReset());
    EXPECT_THAT(journal_.steps(),
                testing::Contains(steps::debug("PID: 6001, requesting version info")));
}

TEST_F(FtdiServiceConnect, ClosesAndDeinitialises) {
    service_.deinitializeLibFTDI();
    EXPECT_EQ(journal_.steps(), steps::closing());
}

TEST_F(FtdiServiceConnect, DeinitialisesWhenClosingFailsWithOrWithoutATextOfTheLibrary) {
    for (const std::string text : {"trouble in ftdi_usb_close", "(null)"}) {
        journal_.clear();
        board_.answerWith("ftdi_usb_close", {-8});
        service_.deinitializeLibFTDI();
        EXPECT_EQ(journal_.steps(),
                  Steps{"ftdi_usb_close"} +
                      steps::explained(
                          steps::error("Error while closing ftdi usb device: -8 (" + text + ")")) +
                      "ftdi_deinit"s);
        board_.hasErrorTexts = false;
    }
}

TEST_F(FtdiServiceConnect, KeepsTheAvailabilityWhenClosing) {
    makeAvailable(service_);
    service_.deinitializeLibFTDI();
    EXPECT_TRUE(service_.isDeviceAvailable());
}

TEST_F(FtdiServiceConnect, TakesAShortWriteForASuccess) {
    board_.finishNextWriteWith(0);
    EXPECT_TRUE(service_.writePinToFTDI(0, true));
    EXPECT_EQ(journal_.steps(), steps::sent("57 00 31 77"));
}

TEST_F(FtdiServiceConnect, TakesAReadWithoutAByteForAFailure) {
    board_.receive(Kind::Empty);
    board_.receive("I\1\2");
    board_.receive("i");
    EXPECT_TRUE(service_.readAndParseMessage());
    EXPECT_EQ(journal_.stepsWith("error"),
              (Steps{steps::error("Error while starting read from ftdi device: (no trouble)")}));
}

TEST_F(FtdiServiceConnect, LogsARefusedReadAtDebugLevelAndWaitsForNothing) {
    board_.receive(Kind::NoTransfer, 12);
    service_.readAndParseMessage();
    EXPECT_EQ(journal_.steps(),
              repeated(12, steps::refusedRead() + steps::readFailure("ftdi_read_data_submit")));
}

TEST_F(FtdiServiceConnect, LogsRefusedTransfersWithoutATextOfTheLibrary) {
    board_.hasErrorTexts = false;
    board_.refuseNextWrite();
    service_.writePinToFTDI(0, true);
    board_.finishNextWriteWith(-1);
    service_.writePinToFTDI(0, true);
    EXPECT_EQ(journal_.stepsWith("error"), (Steps{steps::error("writing to ftdi failed: ((null))"),
                                                  steps::error("unable to write: -1 ((null))")}));
}

TEST_F(FtdiServiceConnect, WaitsOnWhenASignalInterruptsTheWait) {
    board_.answerWith("libusb_handle_events_completed", {-10, -10, -10});
    EXPECT_TRUE(service_.writePinToFTDI(0, true));
    EXPECT_EQ(journal_.steps(), Steps{"ftdi_write_data_submit 57 00 31 77"} +
                                    repeated(4, {steps::WAITED}) + "ftdi_transfer_data_done"s);
}

TEST_F(FtdiServiceConnect, DoesNotWaitForBytesThatAreThereAlready) {
    board_.receive(Kind::ReadyByte, 12);
    service_.readAndParseMessage();
    EXPECT_EQ(board_.unread(), 0U);
    EXPECT_EQ(board_.waits, 0);
}

TEST_F(FtdiServiceConnect, RestsBetweenWaitsThatFail) {
    board_.answerWith("libusb_handle_events_completed", std::vector<int>(20, -99));
    const auto began = std::chrono::steady_clock::now();
    EXPECT_TRUE(service_.writePinToFTDI(0, true));
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(200));
    EXPECT_EQ(board_.waits, 21);
}

TEST_F(FtdiServiceConnect, LeavesAWaitThatGoesOnFailingToTheLibrary) {
    board_.answerWith("libusb_handle_events_completed", std::vector<int>(1000, -99));
    EXPECT_TRUE(service_.writePinToFTDI(0, true));
    EXPECT_EQ(board_.waits, 100);
    EXPECT_EQ(board_.prematureCollections, 1);
    board_.reset();
}

TEST_F(FtdiServiceConnect, CountsFailedWaitsAnewAfterOneThatWentWell) {
    const std::vector<int> failures(60, -99);
    const int someOtherEvent = 1;
    board_.answerWith("libusb_handle_events_completed", failures);
    board_.answerWith("libusb_handle_events_completed", {someOtherEvent});
    board_.answerWith("libusb_handle_events_completed", failures);
    EXPECT_TRUE(service_.writePinToFTDI(0, true));
    EXPECT_EQ(board_.waits, 122);
    EXPECT_EQ(board_.prematureCollections, 0);
}

TEST_F(FtdiServiceConnect, LeavesTheWaitToTheLibraryWithoutAUsbContext) {
    board_.hasUsbContext = false;
    EXPECT_TRUE(service_.writePinToFTDI(0, true));
    EXPECT_EQ(board_.waits, 0);
    EXPECT_EQ(board_.prematureCollections, 1);
    board_.reset();
}

TEST_F(FtdiServiceConnect, WritesWhileAReadIsBlocked) {
    board_.receive(Kind::HeldByte);
    board_.receive("\1\2i");
    auto reading = std::async(std::launch::async, [&] { return service_.readAndParseMessage(); });
    ASSERT_TRUE(support::eventually([&] { return board_.hasHeldRead(); }));
    auto writing = std::async(std::launch::async, [&] { return service_.writePinToFTDI(3, true); });
    EXPECT_EQ(writing.wait_for(support::PATIENCE), std::future_status::ready);
    EXPECT_TRUE(board_.hasHeldRead());
    board_.releaseHeldBytes();
    EXPECT_TRUE(writing.get());
    EXPECT_TRUE(reading.get());
}

TEST_F(FtdiServiceConnect, AnswersQuestionsWhileItConnects) {
    bool answered = false;
    board_.onCall("ftdi_usb_open", [&] {
        auto asking = std::async(std::launch::async, [&] {
            unsigned char port = 0;
            service_.getPins(&port, nullptr, nullptr, nullptr);
            return !service_.isDeviceAvailable() && service_.getFirmwareVersion() == "Unknown";
        });
        answered = asking.wait_for(support::PATIENCE) == std::future_status::ready && asking.get();
    });
    receiveVersion();
    service_.initWithoutReset();
    EXPECT_TRUE(answered);
}

} // namespace
