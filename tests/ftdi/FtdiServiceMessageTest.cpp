#include <algorithm>
#include <array>
#include <string>

#include "FtdiTest.h"
#include "support/ScopedDebug.h"

using namespace std::string_literals;

namespace {

using Kind = FtdiStandIn::Read::Kind;

constexpr int OUTPUT_COUNT = 13;

/// Ports A to D.
using Ports = std::array<unsigned char, 4>;

class FtdiServiceMessages : public FtdiTest {
protected:
    Ports ports() {
        Ports all{};
        service_.getPins(&all[0], &all[1], &all[2], &all[3]);
        return all;
    }

    void setInputs(unsigned char a, unsigned char b) {
        std::array<unsigned char, 4> message = {'I', a, b, 'i'};
        ASSERT_TRUE(service_.inputChanged(message.data()));
    }

    FtdiService service_;
};

using ReadRequest = FtdiServiceMessages;
using VersionRequest = FtdiServiceMessages;
using ReadAndParse = FtdiServiceMessages;
using InputChange = FtdiServiceMessages;
using PinWrite = FtdiServiceMessages;

/// One of the two requests that wait for a reply.
struct Request {
    std::string name;
    bool (FtdiService::*call)();
    std::string letters; ///< the first and the last byte of its reply
    std::string bytes;

    friend void PrintTo(const Request& request, std::ostream* stream) { *stream << request.name; }
};

class BoardRequest : public FtdiServiceMessages, public testing::WithParamInterface<Request> {
protected:
    bool request() { return (service_.*GetParam().call)(); }

    /// '<' and '>' stand for the letters of the reply.
    static std::string lettered(std::string text) {
        std::replace(text.begin(), text.end(), '<', GetParam().letters.front());
        std::replace(text.begin(), text.end(), '>', GetParam().letters.back());
        return text;
    }

    void receive(const std::string& stream) { board_.receive(lettered(stream)); }

    /// Whether the two data bytes of the last reply were taken over.
    bool hasTaken(const std::string& data) {
        const std::string bytes = lettered(data);
        const auto first = static_cast<unsigned char>(bytes[0]);
        const auto second = static_cast<unsigned char>(bytes[1]);
        return GetParam().name == "Read"
                   ? ports() == Ports{first, second, 0, 0}
                   : service_.getFirmwareVersion() ==
                         "v" + std::to_string(first) + "." + std::to_string(second);
    }

    bool hasTakenNothing() {
        return ports() == Ports{} && service_.getFirmwareVersion() == "Unknown";
    }

    static Steps sent() { return steps::sent(GetParam().bytes); }
};

INSTANTIATE_TEST_SUITE_P(EachOf, BoardRequest,
                         testing::Values(Request{"Read", &FtdiService::sendReadAndBlockTillResponse,
                                                 "Rr", steps::READ_REQUEST},
                                         Request{"Version",
                                                 &FtdiService::versionRequestAndBlockTillResponse,
                                                 "Vv", steps::VERSION_REQUEST}),
                         [](const auto& test) { return test.param.name; });

TEST_F(FtdiServiceMessages, PortsCanBeAskedForOneByOneOrNotAtAll) {
    setInputs(0x12, 0x34);
    service_.writePinToFTDI(7, true);
    Ports all = {0, 0, 0, 1};
    service_.getPins(&all[0], nullptr, nullptr, nullptr);
    service_.getPins(nullptr, &all[1], nullptr, nullptr);
    service_.getPins(nullptr, nullptr, &all[2], nullptr);
    service_.getPins(nullptr, nullptr, nullptr, &all[3]);
    service_.getPins(nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(all, (Ports{0x12, 0x34, 0x80, 0}));
}

TEST_P(BoardRequest, FindsItsReplyInTheStream) {
    const std::pair<std::string, std::string> streams[] = {
        {"<\x56\x78>", "\x56\x78"},
        {"xy<<\1\2>", "\1\2"},
        {"<\1<\2\3>", "\2\3"},
        {"<><>", "><"},
        {"<<>>", "<>"},
        {"<\0\xFF>"s, "\0\xFF"s},
        {"<\x0C\0>"s, "\x0C\0"s},
        {"........<\1\2>", "\1\2"},
        {"I\7\x8i<\x12\x34>", "\x12\x34"},
    };
    for (const auto& [stream, data] : streams) {
        receive(stream);
        EXPECT_TRUE(request()) << stream;
        EXPECT_EQ(board_.unread(), 0U) << stream;
        EXPECT_TRUE(hasTaken(data)) << stream;
    }
}

TEST_P(BoardRequest, IsSentAgainWhenFourBytesWereNoReply) {
    receive("x<\x12\x34>");
    EXPECT_TRUE(request());
    EXPECT_EQ(journal_.stepsWith("ftdi_write_data_submit"),
              repeated(2, {"ftdi_write_data_submit " + GetParam().bytes}));
}

TEST_P(BoardRequest, IsSentThreeTimesWithinTwelveBytes) {
    receive("............");
    EXPECT_FALSE(request());
    EXPECT_EQ(journal_.steps(), steps::twelveBytesFor(GetParam().bytes));
    EXPECT_TRUE(hasTakenNothing());
}

TEST_P(BoardRequest, MissesAReplyThatEndsWithTheThirteenthByte) {
    receive(".........<\1\2>");
    EXPECT_FALSE(request());
    EXPECT_EQ(board_.unread(), 1U);
    EXPECT_TRUE(hasTakenNothing());
}

TEST_P(BoardRequest, LosesAMessageThatAnEarlierOneBegan) {
    receive(".........<\1\2");
    EXPECT_FALSE(request());
    receive(">...........");
    EXPECT_FALSE(request());
    EXPECT_TRUE(hasTakenNothing());
}

TEST_P(BoardRequest, KeepsInputsThatChangedWhileNoReplyCame) {
    receive("I\7\x8i........");
    EXPECT_FALSE(request());
    EXPECT_EQ(ports(), (Ports{7, 8, 0, 0}));
}

TEST_P(BoardRequest, CountsFailedReadsAsAttempts) {
    board_.receive(Kind::Failed, 12);
    EXPECT_FALSE(request());
    EXPECT_EQ(journal_.steps(), steps::twelveBytesFor(GetParam().bytes));
}

TEST_P(BoardRequest, CountsRefusedReadsAsAttempts) {
    board_.receive(Kind::NoTransfer, 12);
    EXPECT_FALSE(request());
    EXPECT_EQ(journal_.steps(), repeated(3, sent() + repeated(4, steps::refusedRead())));
    EXPECT_FALSE(service_.isDeviceAvailable());
}

TEST_P(BoardRequest, KeepsTheBytesBeforeAFailedRead) {
    receive("<\1");
    board_.receive(Kind::Failed);
    receive("\2>");
    EXPECT_TRUE(request());
    EXPECT_TRUE(hasTaken("\1\2"));
}

TEST_P(BoardRequest, EndsAtOnceWhenItCannotBeSent) {
    for (int times = 0; times < 3; ++times) {
        const Steps before = repeated(times, sent() + steps::bytesRead(4));
        for (const bool refused : {true, false}) {
            board_.reset();
            makeAvailable(service_);
            receive("............");
            board_.acceptWrites(times);
            refused ? board_.refuseNextWrite() : board_.finishNextWriteWith(-1);
            EXPECT_FALSE(request());
            EXPECT_EQ(journal_.steps(),
                      before + (refused ? steps::refusedWrite(GetParam().bytes)
                                        : steps::failedWrite(GetParam().bytes, -1)));
            EXPECT_EQ(service_.isDeviceAvailable(), GetParam().name == "Version");
        }
    }
}

TEST_F(ReadRequest, MakesTheDeviceAvailableAgainBeforeEachRead) {
    std::vector<bool> available;
    board_.onCall("ftdi_read_data_submit",
                  [&] { available.push_back(service_.isDeviceAvailable()); });
    board_.receive(Kind::Failed, 12);
    service_.sendReadAndBlockTillResponse();
    EXPECT_EQ(available, std::vector<bool>(12, true));
}

TEST_F(ReadRequest, MakesTheDeviceUnavailableWhileItSendsAgainAfterAFailedRead) {
    std::vector<bool> available;
    board_.onCall("ftdi_write_data_submit",
                  [&] { available.push_back(service_.isDeviceAvailable()); });
    board_.receive("...");
    board_.receive(Kind::Failed);
    board_.receive("........");
    service_.sendReadAndBlockTillResponse();
    EXPECT_EQ(available, (std::vector<bool>{false, false, true}));
}

TEST_F(ReadRequest, LeavesTheDeviceUnavailableWhenTheLastReadFailed) {
    makeAvailable(service_);
    board_.receive("...........");
    board_.receive(Kind::Failed);
    EXPECT_FALSE(service_.sendReadAndBlockTillResponse());
    EXPECT_FALSE(service_.isDeviceAvailable());
}

TEST_F(ReadRequest, LeavesTheDeviceAvailableWhenOnlyTheReplyIsMissing) {
    board_.receive("............");
    EXPECT_FALSE(service_.sendReadAndBlockTillResponse());
    EXPECT_TRUE(service_.isDeviceAvailable());
}

TEST_F(VersionRequest, TellsTheVersionItTook) {
    board_.receive("V\2\5v");
    EXPECT_TRUE(service_.versionRequestAndBlockTillResponse());
    EXPECT_EQ(journal_.steps(), steps::sent(steps::VERSION_REQUEST) + steps::bytesRead(4) +
                                    steps::debug("Firmware Version: v2.5"));
}

TEST_F(VersionRequest, TakesNoReadReply) {
    board_.receive("R\1\2r........");
    EXPECT_FALSE(service_.versionRequestAndBlockTillResponse());
    EXPECT_EQ(ports(), Ports{});
}

TEST_F(VersionRequest, LeavesAnUnavailableDeviceUnavailableWhateverComes) {
    board_.receive("V\1\2v");
    EXPECT_TRUE(service_.versionRequestAndBlockTillResponse());
    EXPECT_FALSE(service_.isDeviceAvailable());
}

TEST_F(ReadAndParse, TakesAnInputChange) {
    board_.receive("I\x12\x34i");
    EXPECT_TRUE(service_.readAndParseMessage());
    EXPECT_EQ(journal_.steps(), steps::bytesRead(4));
    EXPECT_EQ(ports(), (Ports{0x12, 0x34, 0, 0}));
    EXPECT_TRUE(service_.isDeviceAvailable());
}

TEST_F(ReadAndParse, TakesAReadReplyWithoutItsPorts) {
    setInputs(3, 4);
    board_.receive("R\x12\x34r");
    EXPECT_TRUE(service_.readAndParseMessage());
    EXPECT_EQ(ports(), (Ports{3, 4, 0, 0}));
    EXPECT_TRUE(service_.isDeviceAvailable());
}

TEST_F(ReadAndParse, FindsOneMessageInTheStream) {
    const std::pair<std::string, std::size_t> streams[] = {
        {"V\1\2vI\3\4i", 0},   // a version reply is passed over byte by byte
        {"iiI.I\3\4i", 0},     // behind stray bytes
        {"I\3\4iI\5\6i", 4},   // one at a time
        {"........I\3\4i", 0}, // ending with the twelfth byte
    };
    for (const auto& [stream, unread] : streams) {
        board_.reset();
        setInputs(0, 0);
        board_.receive(stream);
        EXPECT_TRUE(service_.readAndParseMessage()) << stream;
        EXPECT_EQ(board_.unread(), unread) << stream;
        EXPECT_EQ(ports(), (Ports{3, 4, 0, 0})) << stream;
    }
    EXPECT_EQ(service_.getFirmwareVersion(), "Unknown");
}

TEST_F(ReadAndParse, LosesAMessageThatAnEarlierReadBegan) {
    board_.receive(".........I\1\2");
    EXPECT_FALSE(service_.readAndParseMessage());
    board_.receive("i...........");
    EXPECT_FALSE(service_.readAndParseMessage());
}

TEST_F(ReadAndParse, GivesTheDeviceUpAfterTwelveBytesWithoutAMessage) {
    makeAvailable(service_);
    board_.receive("............");
    EXPECT_FALSE(service_.readAndParseMessage());
    EXPECT_EQ(journal_.steps(), steps::bytesRead(12));
    EXPECT_FALSE(service_.isDeviceAvailable());
}

TEST_F(ReadAndParse, MissesAMessageThatEndsWithTheThirteenthByte) {
    board_.receive(".........I\1\2i");
    EXPECT_FALSE(service_.readAndParseMessage());
}

TEST_F(ReadAndParse, LogsEachOfTwelveFailedReads) {
    makeAvailable(service_);
    board_.receive(Kind::Failed, 12);
    EXPECT_FALSE(service_.readAndParseMessage());
    EXPECT_EQ(journal_.steps(), repeated(12, steps::bytesRead(1) + steps::readFailure()));
    EXPECT_FALSE(service_.isDeviceAvailable());
}

TEST_F(ReadAndParse, LogsAFailedReadWithoutATextOfTheLibrary) {
    board_.hasErrorTexts = false;
    board_.receive(Kind::Failed);
    board_.receive("I\1\2i");
    service_.readAndParseMessage();
    EXPECT_EQ(journal_.stepsWith("error"),
              (Steps{steps::error("Error while starting read from ftdi device: ((null))")}));
}

TEST_F(ReadAndParse, KeepsTheBytesBeforeAFailedRead) {
    board_.receive("I\1");
    board_.receive(Kind::Failed);
    board_.receive("\2i");
    EXPECT_TRUE(service_.readAndParseMessage());
    EXPECT_EQ(ports(), (Ports{1, 2, 0, 0}));
}

TEST_F(ReadAndParse, KeepsTheDeviceAvailableAfterSingleFailures) {
    makeAvailable(service_);
    board_.receive(Kind::Failed, 8);
    bool available = true;
    board_.onCall("ftdi_read_data_submit", [&] { available &= service_.isDeviceAvailable(); });
    board_.receive("I\1\2i");
    service_.readAndParseMessage();
    EXPECT_TRUE(available);
}

TEST_F(ReadAndParse, TellsWithDebugOutputEachByte) {
    const support::ScopedDebug debug;
    board_.receive("I\x0A\xFFi");
    service_.readAndParseMessage();
    const Steps read = {steps::debug("Submitting read"), "ftdi_read_data_submit 1",
                        steps::debug("Starting wait till read is done"), steps::WAITED,
                        "ftdi_transfer_data_done"};
    EXPECT_EQ(journal_.steps(),
              Steps{steps::debug("Starting to read for a new message from FTDI-chip")} + read +
                  steps::debug("received: [49]") + read + steps::debug("received: [a]") + read +
                  steps::debug("received: [ff]") + read + steps::debug("received: [69]") +
                  steps::debug("received update message: (49 0A FF 69)"));
}

TEST_F(InputChange, IsNothingInAnotherFrame) {
    for (const char* const frame : {"Ri", "II"}) {
        std::array<unsigned char, 4> message = {static_cast<unsigned char>(frame[0]), 1, 2,
                                                static_cast<unsigned char>(frame[1])};
        EXPECT_FALSE(service_.inputChanged(message.data())) << frame;
    }
    EXPECT_EQ(ports(), Ports{});
    EXPECT_FALSE(service_.isDeviceAvailable());
}

TEST_F(PinWrite, SendsPinAndLevel) {
    EXPECT_TRUE(service_.writePinToFTDI(10, true));
    EXPECT_TRUE(service_.writePinToFTDI(5, false));
    EXPECT_EQ(journal_.steps(), steps::sent("57 0A 31 77") + steps::sent("57 05 30 77"));
}

TEST_F(PinWrite, TellsWithDebugOutputWhatItSent) {
    const support::ScopedDebug debug;
    service_.writePinToFTDI(12, true);
    EXPECT_EQ(journal_.steps(),
              steps::sent("57 0C 31 77") + steps::debug("sent W 0C 31 w to FTDI-chip"));
}

TEST_F(PinWrite, SetsAndClearsTheBitOfOneOfTheFirstEightOutputsAlone) {
    unsigned char outputs = 0;
    for (unsigned char pin = 0; pin < 8; ++pin) {
        outputs = static_cast<unsigned char>(outputs | 1 << pin);
        service_.writePinToFTDI(pin, true);
        EXPECT_EQ(ports(), (Ports{0, 0, outputs, 0})) << int(pin);
    }
    service_.writePinToFTDI(3, false);
    EXPECT_EQ(ports(), (Ports{0, 0, 0xF7, 0}));
}

TEST_F(PinWrite, RemembersNothingOfTheOutputsFromEightOn) {
    service_.writePinToFTDI(0, true);
    for (unsigned char pin = 8; pin < OUTPUT_COUNT; ++pin) {
        service_.writePinToFTDI(pin, true);
        EXPECT_EQ(ports(), (Ports{0, 0, 1, 0})) << int(pin);
        service_.writePinToFTDI(pin, false);
        EXPECT_EQ(ports(), (Ports{0, 0, 1, 0})) << int(pin);
    }
}

TEST_F(PinWrite, SendsAPinThatDoesNotExistAndRemembersNothing) {
    EXPECT_TRUE(service_.writePinToFTDI(13, true));
    EXPECT_TRUE(service_.writePinToFTDI(0xFF, false));
    EXPECT_EQ(journal_.steps(), steps::sent("57 0D 31 77") + steps::sent("57 FF 30 77"));
    EXPECT_EQ(ports(), (Ports{0, 0, 0, 0}));
}

TEST_F(PinWrite, RemembersTheLevelThoughItCannotBeSent) {
    board_.refuseNextWrite();
    EXPECT_FALSE(service_.writePinToFTDI(6, true));
    EXPECT_EQ(ports(), (Ports{0, 0, 0x40, 0}));
    EXPECT_EQ(journal_.steps(), steps::refusedWrite("57 06 31 77"));
}

TEST_F(PinWrite, RemembersTheLevelBeforeItIsSent) {
    Ports seen;
    board_.onCall("ftdi_write_data_submit", [&] { seen = ports(); });
    service_.writePinToFTDI(0, true);
    EXPECT_EQ(seen, (Ports{0, 0, 1, 0}));
}

TEST_F(PinWrite, FailsWhenTheTransferFails) {
    board_.finishNextWriteWith(-5);
    EXPECT_FALSE(service_.writePinToFTDI(6, true));
    EXPECT_EQ(journal_.steps(), steps::failedWrite("57 06 31 77", -5));
}

TEST_F(PinWrite, DoesNotTouchTheAvailability) {
    makeAvailable(service_);
    board_.refuseNextWrite();
    service_.writePinToFTDI(6, true);
    EXPECT_TRUE(service_.isDeviceAvailable());
}

} // namespace
