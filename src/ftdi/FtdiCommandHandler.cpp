#include "ftdi/FtdiCommandHandler.h"

#include <cstdint>
#include <mutex>

#include "exception/CommandException.h"
#include "exception/DeviceUnavailableException.h"
#include "ftdi/FtdiService.h"
#include "log/Logger.h"
#include "log/OptionalDebug.h"

namespace {

constexpr size_t COMMAND_LENGTH = 4;
constexpr BYTE OUTPUT_PINS = 13;
constexpr BYTE INPUT_PINS = 16;
constexpr BYTE FIRST_PIN_OF_A = OUTPUT_PINS;
constexpr BYTE FIRST_PIN_OF_B = FIRST_PIN_OF_A + 8;
constexpr BYTE PIN_COUNT = OUTPUT_PINS + INPUT_PINS;
constexpr DWORD INPUT_MASK = 0xFFFFFFFFFFFFE000;
constexpr int MASK_DIGITS = 8;

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
    return static_cast<BYTE>(pin == 0 ? OUTPUT_PINS - 1 : pin - 1);
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

FtdiCommandHandler::FtdiCommandHandler() : AbstractCommandHandler(COMMAND_LENGTH) {}

void FtdiCommandHandler::parseCommand(std::string command, char* letter, BYTE* pin, BOOL* value) {
    constexpr int BASE = 16;
    *letter = command.at(0);
    const int high = parseHexDigit(command.at(1));
    const int low = parseHexDigit(command.at(2));
    *pin = static_cast<BYTE>(high * BASE + low);
    *value = static_cast<signed char>(command.at(3)) - '0';
}

std::string FtdiCommandHandler::handleCommand(std::string command) {
    if (command.length() != COMMAND_LENGTH) {
        throw CommandException(std::string("INVALID COMMAND: ") + command.c_str());
    }
    if (isDeviceAvailable() == 0) {
        throw DeviceUnavailableException("Device not available!");
    }
    char letter = 0;
    BYTE pin = 0;
    BOOL value = 0;
    parseCommand(command, &letter, &pin, &value);
    GpioLog::debugIfEnabled(*LOGGER, "Received a command %c with parameters (pin:%d & value:%d)",
                            letter, pin, value);
    if (letter == 'V') {
        return std::string("V") + ftdiService->getFirmwareVersion().c_str() + "V";
    }
    return execute(command, letter, pin, value, MASK_DIGITS);
}

BOOL FtdiCommandHandler::isDeviceAvailable() {
    return ftdiService->isDeviceAvailable() ? 1 : 0;
}

BOOL FtdiCommandHandler::readPin(BYTE pin) {
    const std::lock_guard<lang::Object> guard(*this);
    const Ports ports(*ftdiService);
    if (pin < FIRST_PIN_OF_A) {
        LOGGER->error("Pin %d is marked as an output pin, returning low", pin);
        return 0;
    }
    if (pin < FIRST_PIN_OF_B) {
        return ports.a & (1 << (pin - FIRST_PIN_OF_A));
    }
    if (pin < PIN_COUNT) {
        return ports.b & (1 << (pin - FIRST_PIN_OF_B));
    }
    LOGGER->error("Pin %d does not exist, returning low", pin);
    return 0;
}

BOOL FtdiCommandHandler::writePin(BYTE pin, BOOL value) {
    const std::lock_guard<lang::Object> guard(*this);
    if (pin >= OUTPUT_PINS) {
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
    if (pin < OUTPUT_PINS) {
        return 1;
    }
    if (pin >= PIN_COUNT) {
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
    return INPUT_MASK;
}

DWORD FtdiCommandHandler::getInputCount() {
    return INPUT_PINS;
}

DWORD FtdiCommandHandler::getOutputCount() {
    return OUTPUT_PINS;
}

void FtdiCommandHandler::getPinChanges(DWORD* currentReadPinValues, DWORD* currentDirections) {
    const std::lock_guard<lang::Object> guard(*this);
    const Ports ports(*ftdiService);
    *currentReadPinValues = (static_cast<DWORD>(ports.a) << FIRST_PIN_OF_A) |
                            (static_cast<DWORD>(ports.b) << FIRST_PIN_OF_B);
    *currentDirections = INPUT_MASK;
}

void FtdiCommandHandler::renewOutputStates() {
    LOGGER->debug("Received a renewOutputStates message, this is not implemented");
}
