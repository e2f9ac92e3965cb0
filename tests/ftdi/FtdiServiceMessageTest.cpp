#include <array>
#include <string>

#include "BoardTest.h"
#include "ftdi/FtdiService.h"

using namespace std::string_literals;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using Kind = FtdiStandIn::Read::Kind;

constexpr int outputCount = 13;

struct Ports {
    int a = 0;
    int b = 0;
    int c = 0;
    int d = 0;

    friend bool operator==(const Ports&, const Ports&) = default;
};

void PrintTo(const Ports& ports, std::ostream* stream) {
    *stream << "A " << ports.a << " B " << ports.b << " C " << ports.c << " D " << ports.d;
}

class FtdiServiceMessages : public BoardTest {
protected:
    Ports ports() {
        unsigned char a = 0;
        unsigned char b = 0;
        unsigned char c = 0;
        unsigned char d = 0;
        service.getPins(&a, &b, &c, &d);
        return {a, b, c, d};
    }

    void setInputs(unsigned char a, unsigned char b) {
        std::array<unsigned char, 4> message = {'I', a, b, 'i'};
        ASSERT_TRUE(service.inputChanged(message.data()));
    }

    void makeAvailable() {
        board.receive("RXXr");
        ASSERT_TRUE(service.readAndParseMessage());
        journal.clear();
    }

    FtdiService service;
};

using ReadRequest = FtdiServiceMessages;
using VersionRequest = FtdiServiceMessages;
using ReadAndParse = FtdiServiceMessages;
using InputChange = FtdiServiceMessages;
using PinWrite = FtdiServiceMessages;

const Steps firstReadRequest = steps::sent(steps::readRequest);
const Steps firstVersionRequest = steps::sent(steps::versionRequest);

TEST_F(FtdiServiceMessages, PortsCanBeAskedForOneByOne) {
    setInputs(0x12, 0x34);
    service.writePinToFTDI(7, true);
    unsigned char a = 0;
    unsigned char b = 0;
    unsigned char c = 0;
    unsigned char d = 1;
    service.getPins(&a, nullptr, nullptr, nullptr);
    service.getPins(nullptr, &b, nullptr, nullptr);
    service.getPins(nullptr, nullptr, &c, nullptr);
    service.getPins(nullptr, nullptr, nullptr, &d);
    EXPECT_EQ((Ports{a, b, c, d}), (Ports{0x12, 0x34, 0x80, 0}));
}

TEST_F(FtdiServiceMessages, AskingForNoPortDoesNothing) {
    service.getPins(nullptr, nullptr, nullptr, nullptr);
    EXPECT_THAT(journal.steps(), IsEmpty());
}

TEST_F(ReadRequest, TakesTheReply) {
    board.receive("R\x56\x78r");
    EXPECT_TRUE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(journal.steps(), firstReadRequest + steps::bytesRead(4));
    EXPECT_EQ(ports(), (Ports{0x56, 0x78, 0, 0}));
}

TEST_F(ReadRequest, FindsTheReplyBehindAStrayByte) {
    board.receive("xR\x12\x34r");
    EXPECT_TRUE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(journal.steps(),
              firstReadRequest + steps::bytesRead(4) + firstReadRequest + steps::bytesRead(1));
    EXPECT_EQ(ports(), (Ports{0x12, 0x34, 0, 0}));
}

TEST_F(ReadRequest, TakesAReplyWhoseDataLookLikeItsFrame) {
    board.receive("RrRr");
    EXPECT_TRUE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(ports(), (Ports{'r', 'R', 0, 0}));
    EXPECT_EQ(board.unread(), 0U);
}

TEST_F(ReadRequest, TakesAReplyWhoseDataAreTheFrameTheRightWayRound) {
    board.receive("RRrr");
    EXPECT_TRUE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(ports(), (Ports{'R', 'r', 0, 0}));
}

TEST_F(ReadRequest, FindsTheReplyBehindABrokenOne) {
    board.receive("R\1R\2\3r");
    EXPECT_TRUE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(ports(), (Ports{2, 3, 0, 0}));
}

TEST_F(ReadRequest, TakesAReplyOfZerosAndFullBytes) {
    setInputs(1, 1);
    board.receive("R\0\xFFr"s);
    EXPECT_TRUE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(ports(), (Ports{0, 0xFF, 0, 0}));
}

TEST_F(ReadRequest, GoesOnWaitingWhenInputsChange) {
    board.receive("I\7\x8iR\x12\x34r");
    EXPECT_TRUE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(board.unread(), 0U);
    EXPECT_EQ(ports(), (Ports{0x12, 0x34, 0, 0}));
}

TEST_F(ReadRequest, KeepsInputsThatChangedWhileNoReplyCame) {
    board.receive("I\7\x8i........");
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(ports(), (Ports{7, 8, 0, 0}));
}

TEST_F(ReadRequest, IsSentThreeTimesWithinTwelveBytes) {
    board.receive("............");
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(journal.steps(), steps::twelveBytesFor(steps::readRequest));
}

TEST_F(ReadRequest, TakesAReplyThatEndsWithTheTwelfthByte) {
    board.receive("........R\1\2r");
    EXPECT_TRUE(service.sendReadAndBlockTillResponse());
}

TEST_F(ReadRequest, MissesAReplyThatEndsWithTheThirteenthByte) {
    board.receive(".........R\1\2r");
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(board.unread(), 1U);
}

TEST_F(ReadRequest, LosesAMessageThatAnEarlierRequestBegan) {
    board.receive(".........R\1\2");
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    board.receive("r...........");
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(ports(), (Ports{0, 0, 0, 0}));
}

TEST_F(ReadRequest, CountsFailedReadsAsAttempts) {
    board.receive(Kind::failed, 12);
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(journal.steps(), steps::twelveBytesFor(steps::readRequest));
}

TEST_F(ReadRequest, CountsRefusedReadsAsAttempts) {
    board.receive(Kind::noTransfer, 12);
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(journal.steps(), repeated(3, firstReadRequest + repeated(4, steps::refusedRead())));
    EXPECT_FALSE(service.isDeviceAvailable());
}

TEST_F(ReadRequest, KeepsTheBytesBeforeAFailedRead) {
    board.receive("R\1");
    board.receive(Kind::failed);
    board.receive("\2r");
    EXPECT_TRUE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(ports(), (Ports{1, 2, 0, 0}));
}

TEST_F(ReadRequest, LogsNoErrorForAFailedRead) {
    board.receive(Kind::failed, 12);
    service.sendReadAndBlockTillResponse();
    EXPECT_THAT(journal.stepsWith("error"), IsEmpty());
}

TEST_F(ReadRequest, EndsAtOnceWhenItCannotBeSent) {
    makeAvailable();
    board.refuseNextWrite();
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(journal.steps(), steps::refusedWrite(steps::readRequest));
    EXPECT_FALSE(service.isDeviceAvailable());
}

TEST_F(ReadRequest, EndsAtOnceWhenItCannotBeSentTheSecondTime) {
    board.receive("............");
    board.acceptWrites(1);
    board.finishNextWriteWith(-1);
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(journal.steps(),
              firstReadRequest + steps::bytesRead(4) + steps::failedWrite(steps::readRequest, -1));
    EXPECT_FALSE(service.isDeviceAvailable());
}

TEST_F(ReadRequest, EndsAtOnceWhenItCannotBeSentTheThirdTime) {
    board.receive("............");
    board.acceptWrites(2);
    board.refuseNextWrite();
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_EQ(board.unread(), 4U);
    EXPECT_FALSE(service.isDeviceAvailable());
}

TEST_F(ReadRequest, MakesTheDeviceAvailableOnceItIsSent) {
    bool available = false;
    board.onCall("ftdi_read_data_submit", [&] { available = service.isDeviceAvailable(); });
    service.sendReadAndBlockTillResponse();
    EXPECT_TRUE(available);
}

TEST_F(ReadRequest, MakesTheDeviceAvailableAgainBeforeEachRead) {
    std::vector<bool> available;
    board.onCall("ftdi_read_data_submit",
                 [&] { available.push_back(service.isDeviceAvailable()); });
    board.receive(Kind::failed, 12);
    service.sendReadAndBlockTillResponse();
    EXPECT_EQ(available, std::vector<bool>(12, true));
}

TEST_F(ReadRequest, MakesTheDeviceUnavailableWhileItSendsAgainAfterAFailedRead) {
    std::vector<bool> available;
    board.onCall("ftdi_write_data_submit",
                 [&] { available.push_back(service.isDeviceAvailable()); });
    board.receive("...");
    board.receive(Kind::failed);
    board.receive("........");
    service.sendReadAndBlockTillResponse();
    EXPECT_EQ(available, (std::vector<bool>{false, false, true}));
}

TEST_F(ReadRequest, LeavesTheDeviceUnavailableWhenTheLastReadFailed) {
    makeAvailable();
    board.receive("...........");
    board.receive(Kind::failed);
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_FALSE(service.isDeviceAvailable());
}

TEST_F(ReadRequest, LeavesTheDeviceAvailableWhenOnlyTheReplyIsMissing) {
    board.receive("............");
    EXPECT_FALSE(service.sendReadAndBlockTillResponse());
    EXPECT_TRUE(service.isDeviceAvailable());
}

TEST_F(VersionRequest, TakesTheReply) {
    board.receive("V\2\5v");
    EXPECT_TRUE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(journal.steps(),
              firstVersionRequest + steps::bytesRead(4) + steps::debug("Firmware Version: v2.5"));
    EXPECT_EQ(service.getFirmwareVersion(), "v2.5");
}

TEST_F(VersionRequest, FindsTheReplyBehindStrayBytes) {
    board.receive("xyVV\1\2v");
    EXPECT_TRUE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(service.getFirmwareVersion(), "v1.2");
    EXPECT_EQ(journal.stepsWith("ftdi_write_data_submit"),
              repeated(2, {"ftdi_write_data_submit " + steps::versionRequest}));
}

TEST_F(VersionRequest, GivesAZeroMinorNumber) {
    board.receive("V\1\0v"s);
    service.versionRequestAndBlockTillResponse();
    EXPECT_EQ(service.getFirmwareVersion(), "v1.0");
}

TEST_F(VersionRequest, GivesTheLargestMinorNumber) {
    board.receive("V\x0C\xFFv");
    service.versionRequestAndBlockTillResponse();
    EXPECT_EQ(service.getFirmwareVersion(), "v12.255");
}

TEST_F(VersionRequest, ReplacesAnEarlierVersion) {
    board.receive("V\1\1vV\1\2v");
    service.versionRequestAndBlockTillResponse();
    service.versionRequestAndBlockTillResponse();
    EXPECT_EQ(service.getFirmwareVersion(), "v1.2");
}

TEST_F(VersionRequest, LeavesTheVersionUnknownWithoutAReply) {
    board.receive("............");
    EXPECT_FALSE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(service.getFirmwareVersion(), "Unknown");
}

TEST_F(VersionRequest, IsSentThreeTimesWithinTwelveBytes) {
    board.receive("............");
    EXPECT_FALSE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(journal.steps(), steps::twelveBytesFor(steps::versionRequest));
}

TEST_F(VersionRequest, CountsFailedReadsAsAttempts) {
    board.receive(Kind::failed, 12);
    EXPECT_FALSE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(journal.steps(), steps::twelveBytesFor(steps::versionRequest));
}

TEST_F(VersionRequest, TakesAReplyThatEndsWithTheTwelfthByte) {
    board.receive("........V\1\2v");
    EXPECT_TRUE(service.versionRequestAndBlockTillResponse());
}

TEST_F(VersionRequest, MissesAReplyThatEndsWithTheThirteenthByte) {
    board.receive(".........V\1\2v");
    EXPECT_FALSE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(service.getFirmwareVersion(), "Unknown");
}

TEST_F(VersionRequest, GoesOnWaitingWhenInputsChange) {
    board.receive("I\7\x8iV\1\2v");
    EXPECT_TRUE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(ports(), (Ports{7, 8, 0, 0}));
}

TEST_F(VersionRequest, TakesNoReadReply) {
    board.receive("R\1\2r........");
    EXPECT_FALSE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(ports(), (Ports{0, 0, 0, 0}));
}

TEST_F(VersionRequest, EndsAtOnceWhenItCannotBeSent) {
    board.refuseNextWrite();
    EXPECT_FALSE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(journal.steps(), steps::refusedWrite(steps::versionRequest));
}

TEST_F(VersionRequest, EndsAtOnceWhenItCannotBeSentTheSecondTime) {
    board.receive("............");
    board.acceptWrites(1);
    board.refuseNextWrite();
    EXPECT_FALSE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(journal.steps(), firstVersionRequest + steps::bytesRead(4) +
                                   steps::refusedWrite(steps::versionRequest));
}

TEST_F(VersionRequest, CountsRefusedReadsAsAttempts) {
    board.receive(Kind::noTransfer, 12);
    EXPECT_FALSE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(journal.steps(),
              repeated(3, firstVersionRequest + repeated(4, steps::refusedRead())));
}

TEST_F(VersionRequest, EndsAtOnceWhenItCannotBeSentTheThirdTime) {
    board.receive("............");
    board.acceptWrites(2);
    board.finishNextWriteWith(-1);
    EXPECT_FALSE(service.versionRequestAndBlockTillResponse());
    EXPECT_EQ(board.unread(), 4U);
}

TEST_F(VersionRequest, LeavesAnAvailableDeviceAvailableWhateverFails) {
    makeAvailable();
    board.refuseNextWrite();
    service.versionRequestAndBlockTillResponse();
    board.receive(Kind::failed, 12);
    service.versionRequestAndBlockTillResponse();
    EXPECT_TRUE(service.isDeviceAvailable());
}

TEST_F(VersionRequest, LeavesAnUnavailableDeviceUnavailableWhateverComes) {
    board.receive("V\1\2v");
    EXPECT_TRUE(service.versionRequestAndBlockTillResponse());
    EXPECT_FALSE(service.isDeviceAvailable());
}

TEST_F(ReadAndParse, TakesAnInputChange) {
    board.receive("I\x12\x34i");
    EXPECT_TRUE(service.readAndParseMessage());
    EXPECT_EQ(journal.steps(), steps::bytesRead(4));
    EXPECT_EQ(ports(), (Ports{0x12, 0x34, 0, 0}));
    EXPECT_TRUE(service.isDeviceAvailable());
}

TEST_F(ReadAndParse, TakesAReadReplyWithoutItsPorts) {
    setInputs(3, 4);
    board.receive("R\x12\x34r");
    EXPECT_TRUE(service.readAndParseMessage());
    EXPECT_EQ(ports(), (Ports{3, 4, 0, 0}));
    EXPECT_TRUE(service.isDeviceAvailable());
}

TEST_F(ReadAndParse, PassesAVersionReplyOverByteByByte) {
    board.receive("V\1\2vI\3\4i");
    EXPECT_TRUE(service.readAndParseMessage());
    EXPECT_EQ(service.getFirmwareVersion(), "Unknown");
    EXPECT_EQ(ports(), (Ports{3, 4, 0, 0}));
}

TEST_F(ReadAndParse, FindsAMessageBehindStrayBytes) {
    board.receive("iiI.I\3\4i");
    EXPECT_TRUE(service.readAndParseMessage());
    EXPECT_EQ(ports(), (Ports{3, 4, 0, 0}));
}

TEST_F(ReadAndParse, TakesOneMessageAtATime) {
    board.receive("I\1\2iI\3\4i");
    EXPECT_TRUE(service.readAndParseMessage());
    EXPECT_EQ(board.unread(), 4U);
    EXPECT_EQ(ports(), (Ports{1, 2, 0, 0}));
}

TEST_F(ReadAndParse, LosesAMessageThatAnEarlierReadBegan) {
    board.receive(".........I\1\2");
    EXPECT_FALSE(service.readAndParseMessage());
    board.receive("i...........");
    EXPECT_FALSE(service.readAndParseMessage());
}

TEST_F(ReadAndParse, SendsNothing) {
    service.readAndParseMessage();
    EXPECT_THAT(journal.stepsWith("ftdi_write_data_submit"), IsEmpty());
}

TEST_F(ReadAndParse, GivesTheDeviceUpAfterTwelveBytesWithoutAMessage) {
    makeAvailable();
    board.receive("............");
    EXPECT_FALSE(service.readAndParseMessage());
    EXPECT_EQ(journal.steps(), steps::bytesRead(12));
    EXPECT_FALSE(service.isDeviceAvailable());
}

TEST_F(ReadAndParse, TakesAMessageThatEndsWithTheTwelfthByte) {
    board.receive("........I\1\2i");
    EXPECT_TRUE(service.readAndParseMessage());
}

TEST_F(ReadAndParse, MissesAMessageThatEndsWithTheThirteenthByte) {
    board.receive(".........I\1\2i");
    EXPECT_FALSE(service.readAndParseMessage());
}

TEST_F(ReadAndParse, LogsEachOfTwelveFailedReads) {
    makeAvailable();
    board.receive(Kind::failed, 12);
    EXPECT_FALSE(service.readAndParseMessage());
    EXPECT_EQ(journal.steps(), repeated(12, steps::oneByteRead() + steps::readFailure()));
    EXPECT_FALSE(service.isDeviceAvailable());
}

TEST_F(ReadAndParse, LogsAFailedReadWithoutATextOfTheLibrary) {
    board.loseErrorTexts();
    board.receive(Kind::failed);
    board.receive("I\1\2i");
    service.readAndParseMessage();
    EXPECT_EQ(journal.stepsWith("error"),
              (Steps{steps::error("Error while starting read from ftdi device: ((null))")}));
}

TEST_F(ReadAndParse, KeepsTheBytesBeforeAFailedRead) {
    board.receive("I\1");
    board.receive(Kind::failed);
    board.receive("\2i");
    EXPECT_TRUE(service.readAndParseMessage());
    EXPECT_EQ(ports(), (Ports{1, 2, 0, 0}));
}

TEST_F(ReadAndParse, KeepsTheDeviceAvailableAfterSingleFailures) {
    makeAvailable();
    board.receive(Kind::failed, 8);
    bool available = true;
    board.onCall("ftdi_read_data_submit", [&] { available &= service.isDeviceAvailable(); });
    board.receive("I\1\2i");
    service.readAndParseMessage();
    EXPECT_TRUE(available);
}

TEST_F(ReadAndParse, TellsWithDebugOutputEachByte) {
    enableDebugOutput();
    board.receive("I\x0A\xFFi");
    service.readAndParseMessage();
    const Steps read = {steps::debug("Submitting read"), "ftdi_read_data_submit 1",
                        steps::debug("Starting wait till read is done"), steps::waited,
                        "ftdi_transfer_data_done"};
    EXPECT_EQ(journal.steps(),
              Steps{steps::debug("Starting to read for a new message from FTDI-chip")} + read +
                  steps::debug("received: [49]") + read + steps::debug("received: [a]") + read +
                  steps::debug("received: [ff]") + read + steps::debug("received: [69]") +
                  steps::debug("received update message: (49 0A FF 69)"));
}

TEST_F(InputChange, StoresThePorts) {
    setInputs(0xAA, 0x55);
    EXPECT_EQ(ports(), (Ports{0xAA, 0x55, 0, 0}));
    EXPECT_THAT(journal.steps(), IsEmpty());
}

TEST_F(InputChange, IsToldWithDebugOutput) {
    enableDebugOutput();
    setInputs(0x0A, 0xF5);
    EXPECT_EQ(journal.steps(), Steps{steps::debug("received update message: (49 0A F5 69)")});
}

TEST_F(InputChange, IsNothingThatBeginsOtherwise) {
    std::array<unsigned char, 4> message = {'R', 1, 2, 'i'};
    EXPECT_FALSE(service.inputChanged(message.data()));
    EXPECT_EQ(ports(), (Ports{0, 0, 0, 0}));
}

TEST_F(InputChange, IsNothingThatEndsOtherwise) {
    std::array<unsigned char, 4> message = {'I', 1, 2, 'I'};
    EXPECT_FALSE(service.inputChanged(message.data()));
    EXPECT_EQ(ports(), (Ports{0, 0, 0, 0}));
}

TEST_F(InputChange, DoesNotTouchTheAvailability) {
    setInputs(1, 2);
    EXPECT_FALSE(service.isDeviceAvailable());
}

TEST_F(PinWrite, SendsPinAndHighLevel) {
    EXPECT_TRUE(service.writePinToFTDI(10, true));
    EXPECT_EQ(journal.steps(), steps::sent("57 0A 31 77"));
}

TEST_F(PinWrite, SendsPinAndLowLevel) {
    EXPECT_TRUE(service.writePinToFTDI(5, false));
    EXPECT_EQ(journal.steps(), steps::sent("57 05 30 77"));
}

TEST_F(PinWrite, TellsWithDebugOutputWhatItSent) {
    enableDebugOutput();
    service.writePinToFTDI(12, true);
    EXPECT_EQ(journal.steps(),
              steps::sent("57 0C 31 77") + steps::debug("sent W 0C 31 w to FTDI-chip"));
}

TEST_F(PinWrite, SetsTheBitOfTheFirstEightOutputs) {
    for (unsigned char pin = 0; pin < 8; ++pin) {
        FtdiService fresh;
        fresh.writePinToFTDI(pin, true);
        unsigned char c = 0;
        unsigned char d = 0;
        fresh.getPins(nullptr, nullptr, &c, &d);
        EXPECT_EQ((Ports{0, 0, c, d}), (Ports{0, 0, 1 << pin, 0})) << int(pin);
    }
}

TEST_F(PinWrite, ClearsTheBitOfOneOutputAlone) {
    for (unsigned char pin = 0; pin < 8; ++pin) {
        service.writePinToFTDI(pin, true);
    }
    service.writePinToFTDI(3, false);
    EXPECT_EQ(ports(), (Ports{0, 0, 0xF7, 0}));
}

TEST_F(PinWrite, RemembersNothingOfTheOutputsFromEightOn) {
    service.writePinToFTDI(0, true);
    for (unsigned char pin = 8; pin < outputCount; ++pin) {
        service.writePinToFTDI(pin, true);
        EXPECT_EQ(ports(), (Ports{0, 0, 1, 0})) << int(pin);
        service.writePinToFTDI(pin, false);
        EXPECT_EQ(ports(), (Ports{0, 0, 1, 0})) << int(pin);
    }
}

TEST_F(PinWrite, SendsAPinThatDoesNotExistAndRemembersNothing) {
    EXPECT_TRUE(service.writePinToFTDI(13, true));
    EXPECT_TRUE(service.writePinToFTDI(0xFF, false));
    EXPECT_EQ(journal.steps(), steps::sent("57 0D 31 77") + steps::sent("57 FF 30 77"));
    EXPECT_EQ(ports(), (Ports{0, 0, 0, 0}));
}

TEST_F(PinWrite, RemembersTheLevelThoughItCannotBeSent) {
    board.refuseNextWrite();
    EXPECT_FALSE(service.writePinToFTDI(6, true));
    EXPECT_EQ(ports(), (Ports{0, 0, 0x40, 0}));
    EXPECT_EQ(journal.steps(), steps::refusedWrite("57 06 31 77"));
}

TEST_F(PinWrite, RemembersTheLevelBeforeItIsSent) {
    Ports seen;
    board.onCall("ftdi_write_data_submit", [&] { seen = ports(); });
    service.writePinToFTDI(0, true);
    EXPECT_EQ(seen, (Ports{0, 0, 1, 0}));
}

TEST_F(PinWrite, FailsWhenTheTransferFails) {
    board.finishNextWriteWith(-5);
    EXPECT_FALSE(service.writePinToFTDI(6, true));
    EXPECT_EQ(journal.steps(), steps::failedWrite("57 06 31 77", -5));
}

TEST_F(PinWrite, DoesNotTouchTheAvailability) {
    makeAvailable();
    board.refuseNextWrite();
    service.writePinToFTDI(6, true);
    EXPECT_TRUE(service.isDeviceAvailable());
}

} // namespace
