#include "AbstractCommandHandler.h"

#include "exception/CommandException.h"
#include "lang/Text.h"

namespace {

constexpr size_t BASE_COMMAND_LENGTH = 3;
constexpr int COUNT_DIGITS = 4;
constexpr int MASK_DIGITS = 4;

/// The comparisons are on a signed character, so bytes above 0x7F count as below '0'.
BYTE parsePinDigit(char character) {
    const auto digit = static_cast<signed char>(character);
    if (digit <= '9') {
        return static_cast<BYTE>(digit - '0');
    }
    if (digit <= 'F') {
        return static_cast<BYTE>(digit - 'A' + 10);
    }
    return static_cast<BYTE>(digit - 'a' + 10);
}

std::string frameFlag(char letter, BOOL flag) {
    return letter + (flag != 0 ? ONE : ZERO) + letter;
}

std::string frameNumber(char letter, DWORD number, int digits) {
    const std::string payload = lang::toHex(number, digits);
    return letter + payload + letter;
}

} // namespace

AbstractCommandHandler::AbstractCommandHandler() : AbstractCommandHandler(BASE_COMMAND_LENGTH) {}

AbstractCommandHandler::AbstractCommandHandler(size_t protocolSize)
    : debugCurrentValues(false), PROTOCOL_SIZE(protocolSize) {}

void AbstractCommandHandler::parseCommand(std::string command, char* letter, BYTE* pin,
                                          BOOL* value) {
    *letter = command.at(0);
    *pin = parsePinDigit(command.at(1));
    *value = static_cast<signed char>(command.at(2)) - '0';
}

std::string AbstractCommandHandler::handleCommand(std::string command) {
    if (command.length() != BASE_COMMAND_LENGTH) {
        throw CommandException(std::string("INVALLID COMMAND: ") + command.c_str());
    }
    char letter = 0;
    BYTE pin = 0;
    BOOL value = 0;
    parseCommand(command, &letter, &pin, &value);
    return execute(command, letter, pin, value, MASK_DIGITS);
}

std::string AbstractCommandHandler::execute(const std::string& command, char letter, BYTE pin,
                                            BOOL value, int maskDigits) {
    switch (letter) {
    case 'A':
        return frameNumber(letter, readAllPins(), maskDigits);
    case 'B':
        debugCurrentValues = true;
        return "DBG";
    case 'D':
        return frameFlag(letter, getDirection(pin));
    case 'I':
        return frameNumber(letter, getInputCount(), COUNT_DIGITS);
    case 'K':
        return KK;
    case 'L':
        return LL;
    case 'O':
        return frameNumber(letter, getOutputCount(), COUNT_DIGITS);
    case 'P':
        return frameNumber(letter, getAllDirections(), maskDigits);
    case 'R':
        return frameFlag(letter, readPin(pin));
    case 'S':
        return frameFlag(letter, setDirection(pin, value));
    case 'W':
        return frameFlag(letter, writePin(pin, value));
    default:
        throw CommandException(std::string("^UNKNOWN COMMAND: ") + command.c_str() + "^");
    }
}
