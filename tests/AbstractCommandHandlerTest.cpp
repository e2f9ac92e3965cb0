#include "AbstractCommandHandler.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "exception/CommandException.h"
#include "exception/DeviceUnavailableException.h"
#include "support/Problem.h"

namespace {

using Calls = std::vector<std::string>;

/// Records the calls and answers each with `result`.
class RecordingHandler : public AbstractCommandHandler {
public:
    using AbstractCommandHandler::AbstractCommandHandler;
    using AbstractCommandHandler::parseCommand;

    BOOL isDeviceAvailable() override { return 1; }
    BOOL readPin(BYTE pin) override { return flag("readPin " + std::to_string(pin)); }
    BOOL writePin(BYTE pin, BOOL value) override {
        return flag("writePin " + std::to_string(pin) + " " + std::to_string(value));
    }
    DWORD readAllPins() override { return number("readAllPins"); }
    BOOL getDirection(BYTE pin) override { return flag("getDirection " + std::to_string(pin)); }
    BOOL setDirection(BYTE pin, BOOL direction) override {
        return flag("setDirection " + std::to_string(pin) + " " + std::to_string(direction));
    }
    DWORD getAllDirections() override { return number("getAllDirections"); }
    DWORD getInputCount() override { return number("getInputCount"); }
    DWORD getOutputCount() override { return number("getOutputCount"); }
    void getPinChanges(DWORD* /*values*/, DWORD* /*directions*/) override {}
    void renewOutputStates() override {}

    DWORD result = 0;
    Calls calls;

private:
    DWORD number(const std::string& call) {
        calls.push_back(call);
        return result;
    }
    BOOL flag(const std::string& call) { return static_cast<BOOL>(number(call)); }
};

class CommandHandler : public testing::Test {
protected:
    std::string answerTo(const std::string& command, DWORD result) {
        handler_.result = result;
        return handler_.handleCommand(command);
    }

    std::string problemOf(const std::string& command) {
        return support::problemOf<CommandException>([&] { handler_.handleCommand(command); });
    }

    struct Parsed {
        char letter = 0;
        BYTE pin = 0;
        BOOL value = 0;
    };

    Parsed parse(const std::string& command) {
        Parsed parsed;
        handler_.parseCommand(command, &parsed.letter, &parsed.pin, &parsed.value);
        return parsed;
    }

    int pinOf(char digit) { return parse(std::string("R") + digit + "0").pin; }
    int valueOf(char digit) { return parse(std::string("R0") + digit).value; }

    RecordingHandler handler_;
};

} // namespace

TEST_F(CommandHandler, NumbersAreAnsweredWithAtLeastFourDigits) {
    EXPECT_EQ(answerTo("A00", 0), "A0000A");
    EXPECT_EQ(answerTo("A00", 0xa5), "A00a5A");
    EXPECT_EQ(answerTo("A00", 65536), "A10000A");
    EXPECT_EQ(answerTo("A00", 0xFFFFFFFFFFFFE000), "Affffffffffffe000A");
    EXPECT_EQ(answerTo("P00", 0xff), "P00ffP");
    EXPECT_EQ(answerTo("A00", 0x1fffc000), "A1fffc000A");
    EXPECT_EQ(answerTo("I00", 8), "I0008I");
    EXPECT_EQ(answerTo("O00", 16), "O0010O");
}

TEST_F(CommandHandler, AnyNonzeroResultIsAnsweredAsOne) {
    for (const std::string letter : {"D", "R", "S", "W"}) {
        EXPECT_EQ(answerTo(letter + "30", 1), letter + "1" + letter);
        EXPECT_EQ(answerTo(letter + "30", 7), letter + "1" + letter);
        EXPECT_EQ(answerTo(letter + "30", 0), letter + "0" + letter);
    }
}

TEST_F(CommandHandler, EachLetterCallsItsOperation) {
    for (const char letter : std::string("ADIOPRSW")) {
        handler_.handleCommand(letter + std::string("c1"));
    }
    EXPECT_EQ(handler_.calls,
              (Calls{"readAllPins", "getDirection 12", "getInputCount", "getOutputCount",
                     "getAllDirections", "readPin 12", "setDirection 12 1", "writePin 12 1"}));
}

TEST_F(CommandHandler, InterestAndDebugCallNoOperation) {
    EXPECT_EQ(answerTo("K00", 1), "KK");
    EXPECT_EQ(answerTo("Kzz", 1), "KK");
    EXPECT_EQ(answerTo("L99", 1), "LL");
    EXPECT_FALSE(handler_.debugCurrentValues);
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(answerTo("B00", 1), "DBG");
        EXPECT_TRUE(handler_.debugCurrentValues);
    }
    EXPECT_EQ(handler_.calls, Calls{});
}

TEST_F(CommandHandler, BothCasesOfAHexadecimalDigitAreThePin) {
    const std::string upper = "0123456789ABCDEF";
    const std::string lower = "0123456789abcdef";
    for (int pin = 0; pin < 16; ++pin) {
        EXPECT_EQ(pinOf(upper[static_cast<std::size_t>(pin)]), pin);
        EXPECT_EQ(pinOf(lower[static_cast<std::size_t>(pin)]), pin);
    }
}

TEST_F(CommandHandler, OtherCharactersWrapIntoAPin) {
    EXPECT_EQ(pinOf('G'), 240);
    EXPECT_EQ(pinOf(' '), 240);
    EXPECT_EQ(pinOf('g'), 16);
    EXPECT_EQ(pinOf('/'), 255);
    EXPECT_EQ(pinOf(':'), 3);
    EXPECT_EQ(pinOf('@'), 9);
    EXPECT_EQ(pinOf('W'), 0);
    EXPECT_EQ(pinOf('`'), 9);
    EXPECT_EQ(pinOf('\xff'), 207);
    EXPECT_EQ(pinOf('\x80'), 80);
    EXPECT_EQ(answerTo("RG0", 0), "R0R");
    EXPECT_EQ(handler_.calls, Calls{"readPin 240"});
}

TEST_F(CommandHandler, ValueIsPlainArithmetic) {
    EXPECT_EQ(valueOf('0'), 0);
    EXPECT_EQ(valueOf('1'), 1);
    EXPECT_EQ(valueOf('7'), 7);
    EXPECT_EQ(valueOf('a'), 49);
    EXPECT_EQ(valueOf(' '), -16);
    EXPECT_EQ(valueOf('\xff'), -49);
}

TEST_F(CommandHandler, ParsingAShortCommandIsOutOfRange) {
    for (const std::string command : {"", "W", "W3"}) {
        EXPECT_THROW(parse(command), std::out_of_range);
    }
}

TEST_F(CommandHandler, CommandOfAnotherLengthIsInvalid) {
    EXPECT_EQ(problemOf("W3"), "INVALLID COMMAND: W3");
    EXPECT_EQ(problemOf(""), "INVALLID COMMAND: ");
    EXPECT_EQ(problemOf("\r"), "INVALLID COMMAND: \r");
    EXPECT_EQ(problemOf("W310"), "INVALLID COMMAND: W310");
    EXPECT_EQ(problemOf("%n"), "INVALLID COMMAND: %n");
    const std::string longCommand(10000, 'W');
    EXPECT_EQ(problemOf(longCommand), "INVALLID COMMAND: " + longCommand);
    EXPECT_EQ(handler_.calls, Calls{});
}

TEST_F(CommandHandler, LengthIsFixedWhateverTheProtocolSize) {
    RecordingHandler four(4);
    EXPECT_EQ(four.handleCommand("R00"), "R0R");
    EXPECT_THROW(four.handleCommand("R000"), CommandException);
}

TEST_F(CommandHandler, EveryOtherLetterIsUnknown) {
    const std::string known = "ABDIKLOPRSW";
    for (int code = 1; code < 256; ++code) {
        const char letter = static_cast<char>(code);
        if (known.find(letter) == std::string::npos) {
            const std::string command = letter + std::string("31");
            EXPECT_EQ(problemOf(command), "^UNKNOWN COMMAND: " + command + "^") << code;
        }
    }
    EXPECT_EQ(handler_.calls, Calls{});
}

TEST_F(CommandHandler, ProtocolSizeIsThreeUnlessGiven) {
    EXPECT_EQ(handler_.PROTOCOL_SIZE, 3U);
    EXPECT_EQ(RecordingHandler(4).PROTOCOL_SIZE, 4U);
}

TEST_F(CommandHandler, ParserOfASubclassIsHonoured) {
    class OwnParser : public RecordingHandler {
    public:
        void parseCommand(std::string /*command*/, char* letter, BYTE* pin, BOOL* value) override {
            *letter = 'W';
            *pin = 9;
            *value = 5;
        }
    };
    OwnParser parser;
    parser.result = 1;
    EXPECT_EQ(parser.handleCommand("xyz"), "W1W");
    EXPECT_EQ(parser.calls, Calls{"writePin 9 5"});
}

TEST_F(CommandHandler, BackEndsExceptionPassesThrough) {
    class Absent : public RecordingHandler {
    public:
        BOOL readPin(BYTE /*pin*/) override { throw DeviceUnavailableException("gone"); }
    };
    Absent absent;
    EXPECT_THROW(absent.handleCommand("R00"), DeviceUnavailableException);
}
