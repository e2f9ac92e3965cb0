#pragma once

#include <array>

#include "AbstractCommandHandler.h"

/// Sixteen simulated pins in memory, at first outputs and low. A pin beyond them fails: it reads
/// low, and writing it or setting its direction is answered with the failure digit.
class TestCommandHandler : public AbstractCommandHandler {
public:
    static constexpr int PIN_COUNT = 16;

    BOOL isDeviceAvailable() override { return 1; }

    /// The value as it was written, not reduced to 0 or 1.
    BOOL readPin(BYTE pin) override;

    /// Stores the value unchanged, on input pins too.
    BOOL writePin(BYTE pin, BOOL value) override;

    /// Only a value of exactly 1 counts as high.
    DWORD readAllPins() override;

    BOOL getDirection(BYTE pin) override;
    BOOL setDirection(BYTE pin, BOOL direction) override;
    DWORD getAllDirections() override;
    DWORD getInputCount() override;
    DWORD getOutputCount() override;
    void getPinChanges(DWORD* currentReadPinValues, DWORD* currentDirections) override;
    void renewOutputStates() override {}

private:
    static bool exists(BYTE pin) { return pin < PIN_COUNT; }
    void printPins() const;

    std::array<BYTE, PIN_COUNT> directions = {};
    std::array<BOOL, PIN_COUNT> values = {};

    /// Serialises the dumps; taken inside a handler's own monitor. Never destroyed, since clients'
    /// threads may still print while the process ends.
    static lang::Object& printLock;
};
