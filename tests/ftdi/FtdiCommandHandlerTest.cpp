#include "ftdi/FtdiCommandHandler.h"

#include <array>
#include <chrono>
#include <functional>
#include <vector>

#include "FtdiTest.h"
#include "exception/CommandException.h"
#include "exception/DeviceUnavailableException.h"
#include "ftdi/FtdiService.h"
#include "support/MonitorHold.h"
#include "support/Problem.h"
#include "support/ScopedDebug.h"

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::IsEmpty;

namespace {

constexpr int OUTPUT_COUNT = 13;
constexpr int PIN_COUNT = 29;
constexpr int PIN_NUMBERS = 256;

std::string handlerError(const std::string& text) {
    return "error ftdi/FtdiCommandHandler: " + text;
}

std::string sentPin(int devicePin, char level) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "ftdi_write_data_submit 57 %02X %02X 77",
                  static_cast<unsigned>(devicePin), static_cast<unsigned>(level));
    return text.data();
}

/// Ports that no board could be brought to report, and a look at the moment they are asked for.
class PortsService : public FtdiService {
public:
    void getPins(unsigned char* a, unsigned char* b, unsigned char* c, unsigned char* d) override {
        ++questions;
        presets = {*a, *b, *c, *d};
        *a = ports[0];
        *b = ports[1];
        *c = ports[2];
        *d = ports[3];
        whenAsked();
    }

    std::array<unsigned char, 4> ports{};
    std::array<unsigned char, 4> presets{};
    int questions = 0;
    std::function<void()> whenAsked = [] {};
};

class FtdiCommands : public FtdiTest {
protected:
    FtdiCommands() {
        handler_.setFtdiService(&service_);
        makeAvailable(service_);
    }

    void losePlug() {
        board_.receive(FtdiStandIn::Read::Kind::Failed, 12);
        service_.readAndParseMessage();
        journal_.clear();
    }

    std::string messageOf(const std::string& command) {
        return support::problemOf<CommandException>([&] { handler_.handleCommand(command); });
    }

    void expectMissedDevice(const std::string& command) {
        EXPECT_EQ(support::problemOf<DeviceUnavailableException>(
                      [&] { handler_.handleCommand(command); }),
                  "Device not available!")
            << command;
    }

    PortsService service_;
    FtdiCommandHandler handler_;
};

class Parsing : public FtdiCommandHandler {
public:
    using FtdiCommandHandler::parseCommand;
};

TEST_F(FtdiCommands, OfFourCharactersHaveTheirAnswers) {
    EXPECT_EQ(handler_.PROTOCOL_SIZE, 4U);
    struct Case {
        std::array<unsigned char, 4> ports;
        std::string command;
        std::string answer;
    };
    const Case cases[] = {
        {{0, 3, 0, 0}, "A000", "A00000300A"},
        {{0x12, 0x34, 0x56, 0x78}, "A000", "A78563412A"},
        {{0, 0, 0, 0x80}, "A000", "Affffffff80000000A"},
        {{}, "B000", "DBG"},
        {{}, "D0C0", "D1D"},
        {{}, "D0D0", "D0D"},
        {{}, "D1C0", "D0D"},
        {{}, "I000", "I0010I"},
        {{}, "K000", "KK"},
        {{}, "L000", "LL"},
        {{}, "O000", "O000dO"},
        {{}, "P000", "Pffffffffffffe000P"},
        {{1, 0, 0, 0}, "R0D0", "R1R"},
        {{0xFE, 0xFF, 0xFF, 0xFF}, "R0D0", "R0R"},
        {{0, 0x80, 0, 0}, "R1C0", "R1R"},
        {{}, "V000", "VUnknownV"},
        {{}, "W0D1", "W0W"},
    };
    for (const Case& one : cases) {
        service_.ports = one.ports;
        EXPECT_EQ(handler_.handleCommand(one.command), one.answer);
    }
    EXPECT_THAT(journal_.steps(), IsEmpty());
}

TEST_F(FtdiCommands, TellTheFirmwareVersion) {
    board_.receive("V\2\5v");
    service_.versionRequestAndBlockTillResponse();
    EXPECT_EQ(handler_.handleCommand("V000"), "Vv2.5V");
}

TEST_F(FtdiCommands, EndTheFirmwareVersionAtItsFirstNul) {
    class NulService : public FtdiService {
    public:
        bool isDeviceAvailable() override { return true; }
        std::string getFirmwareVersion() override { return "v1\0.2"s; }
    } nulService;
    handler_.setFtdiService(&nulService);
    EXPECT_EQ(handler_.handleCommand("V000"), "Vv1V");
}

TEST_F(FtdiCommands, TellThatTheBoardRefusedAWrite) {
    board_.refuseNextWrite();
    EXPECT_EQ(handler_.handleCommand("W011"), "W0W");
}

TEST_F(FtdiCommands, RefuseEveryOtherLengthAlsoWithoutTheDevice) {
    EXPECT_EQ(messageOf(""), "INVALID COMMAND: ");
    EXPECT_EQ(messageOf("R"), "INVALID COMMAND: R");
    EXPECT_EQ(messageOf("R0D"), "INVALID COMMAND: R0D");
    EXPECT_EQ(messageOf("R0D00"), "INVALID COMMAND: R0D00");
    losePlug();
    EXPECT_EQ(messageOf("R0D"), "INVALID COMMAND: R0D");
}

TEST_F(FtdiCommands, MissTheDeviceWhateverTheyAsk) {
    losePlug();
    for (const std::string command :
         {"A000", "B000", "D0D0", "I000", "K000", "L000", "O000", "P000", "R0D0", "S0D1", "V000",
          "W011", "x000", "R0d0", "\n\n\n\n"}) {
        expectMissedDevice(command);
    }
    EXPECT_THAT(journal_.steps(), IsEmpty());
    EXPECT_EQ(service_.questions, 0);
}

TEST_F(FtdiCommands, AreToldWithDebugOutput) {
    const support::ScopedDebug debug;
    handler_.handleCommand("K1C9");
    EXPECT_EQ(journal_.steps(), Steps{"debug ftdi/FtdiCommandHandler: Received a command K with "
                                      "parameters (pin:28 & value:9)"});
}

TEST_F(FtdiCommands, AreNotToldWithDebugOutputWhileTheDeviceIsMissing) {
    losePlug();
    const support::ScopedDebug debug;
    expectMissedDevice("K000");
    EXPECT_THAT(journal_.steps(), IsEmpty());
}

TEST_F(FtdiCommands, AreParsedThroughTheVirtualOperation) {
    class Redirecting : public FtdiCommandHandler {
    protected:
        void parseCommand(std::string /*command*/, char* letter, BYTE* pin, BOOL* value) override {
            *letter = 'D';
            *pin = 0;
            *value = 0;
        }
    } redirecting;
    redirecting.setFtdiService(&service_);
    EXPECT_EQ(redirecting.handleCommand("????"), "D1D");
}

class FtdiParsing : public FtdiCommands {
protected:
    void parse(const std::string& command) {
        parsing_.parseCommand(command, &letter_, &pin_, &value_);
    }

    Parsing parsing_;
    char letter_ = 0;
    BYTE pin_ = 0;
    BOOL value_ = 0;
};

TEST_F(FtdiParsing, CombinesTwoHexadecimalDigits) {
    const std::string digits = "0123456789ABCDEF";
    for (int number = 0; number < PIN_NUMBERS; ++number) {
        parse("R"s + digits[static_cast<size_t>(number / 16)] +
              digits[static_cast<size_t>(number % 16)] + "0");
        EXPECT_EQ(pin_, number);
    }
    EXPECT_THAT(journal_.steps(), IsEmpty());
}

TEST_F(FtdiParsing, TakesEveryOtherCharacterForZero) {
    const std::string digits = "0123456789ABCDEF";
    for (int number = 1; number < PIN_NUMBERS; ++number) {
        const char character = static_cast<char>(number);
        if (digits.find(character) == std::string::npos) {
            journal_.clear();
            parse("R1"s + character + "0");
            EXPECT_EQ(pin_, 0x10) << number;
            EXPECT_EQ(journal_.steps(),
                      Steps{handlerError(character + " is not a hexadecimal character!"s)});
        }
    }
}

TEST_F(FtdiParsing, ComplainsAboutBothDigits) {
    parse("Rxy0");
    EXPECT_EQ(pin_, 0);
    EXPECT_EQ(journal_.steps(), (Steps{handlerError("x is not a hexadecimal character!"),
                                       handlerError("y is not a hexadecimal character!")}));
}

TEST_F(FtdiParsing, TakesTheValueUnchecked) {
    parse("W01A");
    EXPECT_EQ(value_, 'A' - '0');
    parse("W01 ");
    EXPECT_EQ(value_, ' ' - '0');
}

TEST_F(FtdiParsing, IsBoundsChecked) {
    EXPECT_THROW(parse("R0D"), std::out_of_range);
}

TEST_F(FtdiParsing, PassesOverWhatFollows) {
    parse("W1C123");
    EXPECT_EQ(letter_, 'W');
    EXPECT_EQ(pin_, 28);
    EXPECT_EQ(value_, 1);
}

using FtdiPins = FtdiCommands;

TEST_F(FtdiPins, AreAvailableWithTheService) {
    EXPECT_NE(handler_.isDeviceAvailable(), 0);
    losePlug();
    EXPECT_EQ(handler_.isDeviceAvailable(), 0);
}

TEST_F(FtdiPins, ReadTheBitOfTheirInputWithinItsPort) {
    for (int bit = 0; bit < 8; ++bit) {
        service_.ports = {static_cast<BYTE>(1 << bit), 0, 0xFF, 0xFF};
        EXPECT_EQ(handler_.readPin(static_cast<BYTE>(13 + bit)), 1 << bit);
        EXPECT_EQ(handler_.readPin(static_cast<BYTE>(21 + bit)), 0);
        service_.ports = {0, static_cast<BYTE>(1 << bit), 0xFF, 0xFF};
        EXPECT_EQ(handler_.readPin(static_cast<BYTE>(13 + bit)), 0);
        EXPECT_EQ(handler_.readPin(static_cast<BYTE>(21 + bit)), 1 << bit);
    }
    EXPECT_THAT(journal_.steps(), IsEmpty());
}

TEST_F(FtdiPins, ReadLowWithAnErrorEverywhereElse) {
    service_.ports = {0xFF, 0xFF, 0xFF, 0xFF};
    for (int pin = 0; pin < PIN_NUMBERS; ++pin) {
        if (pin >= OUTPUT_COUNT && pin < PIN_COUNT) {
            continue;
        }
        journal_.clear();
        EXPECT_EQ(handler_.readPin(static_cast<BYTE>(pin)), 0);
        const std::string number = std::to_string(pin);
        EXPECT_EQ(journal_.steps(),
                  Steps{handlerError(
                      "Pin " + number +
                      (pin < OUTPUT_COUNT ? " is marked as an output pin" : " does not exist") +
                      ", returning low")});
    }
}

TEST_F(FtdiPins, WriteTheirDeviceOutput) {
    for (int pin = 0; pin < OUTPUT_COUNT; ++pin) {
        journal_.clear();
        const int devicePin = pin == 0 ? 12 : pin - 1;
        EXPECT_EQ(handler_.writePin(static_cast<BYTE>(pin), 1), 1);
        EXPECT_EQ(handler_.writePin(static_cast<BYTE>(pin), 0), 1);
        EXPECT_EQ(journal_.stepsWith("ftdi_write"),
                  (Steps{sentPin(devicePin, '1'), sentPin(devicePin, '0')}));
    }
}

TEST_F(FtdiPins, WriteHighForEveryNonzeroValue) {
    handler_.writePin(1, -1);
    handler_.writePin(1, 256);
    EXPECT_EQ(journal_.stepsWith("ftdi_write"), (Steps{sentPin(0, '1'), sentPin(0, '1')}));
}

TEST_F(FtdiPins, WriteNothingBeyondTheOutputs) {
    for (int pin = OUTPUT_COUNT; pin < PIN_NUMBERS; ++pin) {
        EXPECT_EQ(handler_.writePin(static_cast<BYTE>(pin), 1), 0);
    }
    EXPECT_THAT(journal_.steps(), IsEmpty());
}

TEST_F(FtdiPins, ReadAllPortsInOneNumber) {
    service_.ports = {0x01, 0x02, 0x03, 0x7F};
    EXPECT_EQ(handler_.readAllPins(), 0x7F030201UL);
    service_.ports = {0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(handler_.readAllPins(), 0xFFFFFFFFFFFFFFFFUL);
}

TEST_F(FtdiPins, HaveDirectionOneForOutputsAlone) {
    for (int pin = 0; pin < PIN_COUNT; ++pin) {
        EXPECT_EQ(handler_.getDirection(static_cast<BYTE>(pin)), pin < OUTPUT_COUNT ? 1 : 0);
    }
    EXPECT_THAT(journal_.steps(), IsEmpty());
}

TEST_F(FtdiPins, HaveNoDirectionBeyondTheLast) {
    for (int pin = PIN_COUNT; pin < PIN_NUMBERS; ++pin) {
        journal_.clear();
        EXPECT_EQ(handler_.getDirection(static_cast<BYTE>(pin)), 0);
        EXPECT_EQ(journal_.steps(), Steps{handlerError("Requested direction of invalid pin")});
    }
}

TEST_F(FtdiPins, ReportTheInputsAtTheirPositions) {
    service_.ports = {0xFE, 0xFF, 0xFF, 0xFF};
    DWORD values = 0;
    DWORD directions = 0;
    handler_.getPinChanges(&values, &directions);
    EXPECT_EQ(values, 0x1FFFC000U);
    EXPECT_EQ(directions, 0xFFFFFFFFFFFFE000UL);
    EXPECT_EQ(service_.questions, 1);
}

TEST_F(FtdiPins, AskForPortsPresetToZero) {
    service_.presets = {9, 9, 9, 9};
    handler_.readAllPins();
    EXPECT_THAT(service_.presets, testing::Each(0));
}

TEST_F(FtdiPins, CanNeitherBeRenewedNorGivenADirection) {
    handler_.renewOutputStates();
    EXPECT_EQ(handler_.handleCommand("S0D1"), "S0S");
    EXPECT_EQ(journal_.steps(),
              (Steps{"debug ftdi/FtdiCommandHandler: Received a renewOutputStates message, this is "
                     "not implemented",
                     handlerError("Received a setDirection message, this is not implemented")}));
}

TEST_F(FtdiPins, AreAskedForAndWrittenWithTheMonitorHeld) {
    DWORD values = 0;
    DWORD directions = 0;
    std::vector<bool> held;
    service_.whenAsked = [&] { held.push_back(support::isHeld(handler_)); };
    board_.onCall("ftdi_write_data_submit", service_.whenAsked);
    handler_.readPin(13);
    handler_.writePin(0, 1);
    handler_.readAllPins();
    handler_.getPinChanges(&values, &directions);
    EXPECT_EQ(held, std::vector<bool>(4, true));
}

TEST_F(FtdiPins, HaveDirectionsThatWaitForTheMonitor) {
    EXPECT_FALSE(endsBeside(
        handler_, [&] { handler_.getDirection(0); }, 50ms));
    EXPECT_FALSE(endsBeside(
        handler_, [&] { handler_.getAllDirections(); }, 50ms));
}

TEST_F(FtdiPins, LeaveTheOtherOperationsAlone) {
    EXPECT_TRUE(endsBeside(handler_, [&] { handler_.isDeviceAvailable(); }));
    EXPECT_TRUE(endsBeside(handler_, [&] { handler_.getInputCount(); }));
    EXPECT_TRUE(endsBeside(handler_, [&] { handler_.getOutputCount(); }));
    EXPECT_TRUE(endsBeside(handler_, [&] { handler_.setDirection(0, 0); }));
    EXPECT_TRUE(endsBeside(handler_, [&] { handler_.renewOutputStates(); }));
}

} // namespace
