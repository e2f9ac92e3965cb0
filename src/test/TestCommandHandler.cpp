#include "test/TestCommandHandler.h"

#include <algorithm>
#include <mutex>
#include <sstream>

#include <unistd.h>

#include "Launcher.h"
#include "log/StandardStreams.h"

namespace {

/// Mask of the pins that have exactly 1.
template <typename Pins> DWORD maskOf(const Pins& pins) {
    DWORD mask = 0;
    for (std::size_t pin = 0; pin < pins.size(); ++pin) {
        mask |= pins[pin] == 1 ? DWORD{1} << pin : 0;
    }
    return mask;
}

} // namespace

lang::Object& TestCommandHandler::printLock = *new lang::Object;

BOOL TestCommandHandler::readPin(BYTE pin) {
    const std::lock_guard<lang::Object> guard(*this);
    printPins();
    return exists(pin) ? values[pin] : 0;
}

BOOL TestCommandHandler::writePin(BYTE pin, BOOL value) {
    const std::lock_guard<lang::Object> guard(*this);
    const bool stored = exists(pin);
    if (stored) {
        values[pin] = value;
    }
    printPins();
    return stored ? 1 : 0;
}

DWORD TestCommandHandler::readAllPins() {
    const std::lock_guard<lang::Object> guard(*this);
    const DWORD mask = maskOf(values);
    printPins();
    return mask;
}

BOOL TestCommandHandler::getDirection(BYTE pin) {
    const std::lock_guard<lang::Object> guard(*this);
    printPins();
    return exists(pin) && directions[pin] == 1 ? 1 : 0;
}

BOOL TestCommandHandler::setDirection(BYTE pin, BOOL direction) {
    const std::lock_guard<lang::Object> guard(*this);
    const bool stored = exists(pin);
    if (stored) {
        directions[pin] = direction != 0 ? 1 : 0;
    }
    printPins();
    return stored ? 1 : 0;
}

DWORD TestCommandHandler::getAllDirections() {
    const std::lock_guard<lang::Object> guard(*this);
    const DWORD mask = maskOf(directions);
    printPins();
    return mask;
}

DWORD TestCommandHandler::getInputCount() {
    const std::lock_guard<lang::Object> guard(*this);
    const auto count = std::count(directions.begin(), directions.end(), 1);
    printPins();
    return static_cast<DWORD>(count);
}

DWORD TestCommandHandler::getOutputCount() {
    const std::lock_guard<lang::Object> guard(*this);
    const auto count = std::count(directions.begin(), directions.end(), 0);
    printPins();
    return static_cast<DWORD>(count);
}

void TestCommandHandler::getPinChanges(DWORD* currentReadPinValues, DWORD* currentDirections) {
    const std::lock_guard<lang::Object> guard(*this);
    *currentReadPinValues = maskOf(values);
    *currentDirections = maskOf(directions);
}

void TestCommandHandler::printPins() const {
    if (!Launcher::isDebugEnabled()) {
        return;
    }
    const std::lock_guard<lang::Object> guard(printLock);
    std::ostringstream dump;
    dump << "PINS: [";
    for (BYTE pin = 0; pin < PIN_COUNT; ++pin) {
        dump << (pin == 0 ? "" : " ") << +pin << '-' << (directions[pin] == 1 ? "I-" : "O-")
             << values[pin];
    }
    dump << "]\r";
    GpioLog::writeWhole(STDOUT_FILENO, dump.str());
}
