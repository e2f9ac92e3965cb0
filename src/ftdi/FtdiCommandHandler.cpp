#include "ftdi/FtdiCommandHandler.h"

#include <cstdint>
#include <mutex>

#include "AnswerFormat.h"
#include "Launcher.h"
#include "exception/CommandException.h"
#include "exception/DeviceUnavailableException.h"
#include "ftdi/FtdiService.h"
#include "lang/Text.h"
#include "log/Logger.h"

namespace {

constexpr size_t commandLength = 4;
constexpr BYTE outputPins = 13;
constexpr BYTE inputPins = 16;
constexpr BYTE firstPinOfA = outputPins;
constexpr BYTE firstPinOfB = firstPinOfA + 8;
constexpr BYTE pinCount = outputPins + inputPins;
constexpr DWORD inputMask = 0xFFFFFFFFFFFFE000;
constexpr int countDigits = 4;
constexpr int maskDigits = 8;

GpioLog::Logger* const LOGGER = new GpioLog::Logger("ftdi/FtdiCommandHandler");

struct Ports {
    explicit Ports(FtdiService& service) { service.getPins(&a, &b, &c, &d); }

    unsigned char a = 0;
    unsigned char b = 0;
    unsigned char c = 0;
    unsigned char d = 0;
};

/// The board numbers its outputs from the clients' pin 1 on; pin 0 comes last.
BYTE deviceOutputOf(BYTE pin) {
    return static_cast<BYTE>(pin == 0 ? outputPins - 1 : pin - 1);
}

int parseHexDigit(char character) {
    if (character >= '0' && character <= '9') {
        return character - '0';
    }
    if (character >= 'A' && character <= 'F') {
        return character - 'A' + 10;
    }
    LOGGER->error("%c is not a hexadecimal character!", character);
    return 0;
}

} // namespace

FtdiCommandHandler::FtdiCommandHandler() : AbstractCommandHandler(commandLength) {}

void FtdiCommandHandler::parseCommand(std::string command, char* letter, BYTE* pin, BOOL* value) {
    constexpr int base = 16;
    *letter = command.at(0);
    const int high = parseHexDigit(command.at(1));
    const int low = parseHexDigit(command.at(2));
    *pin = static_cast<BYTE>(high * base + low);
    *value = static_cast<signed char>(command.at(3)) - '0';
}

std::string FtdiCommandHandler::handleCommand(std::string command) {
    if (command.length() != commandLength) {
        throw CommandException("INVALID COMMAND: " + lang::upToZero(command));
    }
    if (isDeviceAvailable() == 0) {
        throw DeviceUnavailableException("Device not available!");
    }
    char letter = 0;
    BYTE pin = 0;
    BOOL value = 0;
    parseCommand(command, &letter, &pin, &value);
    if (Launcher::isDebugEnabled()) {
        LOGGER->debug("Received a command %c with parameters (pin:%d & value:%d)", letter, pin,
                      value);
    }
    return execute(command, letter, pin, value);
}

std::string FtdiCommandHandler::execute(const std::string& command, char letter, BYTE pin,
                                        BOOL value) {
    switch (letter) {
    case 'A':
        return AnswerFormat::frameNumber(letter, readAllPins(), maskDigits);
    case 'B':
        debugCurrentValues = true;
        return "DBG";
    case 'D':
        return AnswerFormat::frameFlag(letter, getDirection(pin));
    case 'I':
        return AnswerFormat::frameNumber(letter, getInputCount(), countDigits);
    case 'K':
        return KK;
    case 'L':
        return LL;
    case 'O':
        return AnswerFormat::frameNumber(letter, getOutputCount(), countDigits);
    case 'P':
        return AnswerFormat::frameNumber(letter, getAllDirections(), maskDigits);
    case 'R':
        return AnswerFormat::frameFlag(letter, readPin(pin));
    case 'S':
        setDirection(pin, value);
        return AnswerFormat::frameFlag(letter, 0);
    case 'V':
        return AnswerFormat::frame(letter, lang::upToZero(ftdiService->getFirmwareVersion()));
    case 'W':
        return AnswerFormat::frameFlag(letter, writePin(pin, value));
    default:
        throw CommandException("^UNKNOWN COMMAND: " + lang::upToZero(command) + "^");
    }
}

BOOL FtdiCommandHandler::isDeviceAvailable() {
    return ftdiService->isDeviceAvailable() ? 1 : 0;
}

BOOL FtdiCommandHandler::readPin(BYTE pin) {
    const std::lock_guard<lang::Object> guard(*this);
    const Ports ports(*ftdiService);
    if (pin < firstPinOfA) {
        LOGGER->error("Pin %d is marked as an output pin, returning low", pin);
        return 0;
    }
    if (pin < firstPinOfB) {
        return ports.a & (1 << (pin - firstPinOfA));
    }
    if (pin < pinCount) {
        return ports.b & (1 << (pin - firstPinOfB));
    }
    LOGGER->error("Pin %d does not exist, returning low", pin);
    return 0;
}

BOOL FtdiCommandHandler::writePin(BYTE pin, BOOL value) {
    const std::lock_guard<lang::Object> guard(*this);
    if (pin >= outputPins) {
        return 0;
    }
    return ftdiService->writePinToFTDI(deviceOutputOf(pin), value != 0) ? 1 : 0;
}

DWORD FtdiCommandHandler::readAllPins() {
    const std::lock_guard<lang::Object> guard(*this);
    const Ports ports(*ftdiService);
    const auto highest = static_cast<std::int32_t>(static_cast<std::uint32_t>(ports.d) << 24);
    return static_cast<DWORD>(static_cast<std::int64_t>(highest)) |
           (static_cast<DWORD>(ports.c) << 16) | (static_cast<DWORD>(ports.b) << 8) | ports.a;
}

BOOL FtdiCommandHandler::getDirection(BYTE pin) {
    const std::lock_guard<lang::Object> guard(*this);
    if (pin < outputPins) {
        return 1;
    }
    if (pin >= pinCount) {
        LOGGER->error("Requested direction of invalid pin");
    }
    return 0;
}

BOOL FtdiCommandHandler::setDirection(BYTE /*pin*/, BOOL /*direction*/) {
    LOGGER->error("Received a setDirection message, this is not implemented");
    return 0;
}

DWORD FtdiCommandHandler::getAllDirections() {
    const std::lock_guard<lang::Object> guard(*this);
    return inputMask;
}

DWORD FtdiCommandHandler::getInputCount() {
    return inputPins;
}

DWORD FtdiCommandHandler::getOutputCount() {
    return outputPins;
}

void FtdiCommandHandler::getPinChanges(DWORD* currentReadPinValues, DWORD* currentDirections) {
    const std::lock_guard<lang::Object> guard(*this);
    const Ports ports(*ftdiService);
    *currentReadPinValues =
        (static_cast<DWORD>(ports.a) << firstPinOfA) | (static_cast<DWORD>(ports.b) << firstPinOfB);
    *currentDirections = inputMask;
}

void FtdiCommandHandler::renewOutputStates() {
    LOGGER->debug("Received a renewOutputStates message, this is not implemented");
}

void FtdiCommandHandler::setFtdiService(FtdiService* service) {
    ftdiService = service;
}
