#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "lang/Object.h"

using BYTE = unsigned char;
using BOOL = int;
using DWORD = std::uint64_t; // unsigned long where that has 64 bits

static const std::string ZERO = "0";
static const std::string ONE = "1";
static const std::string KK = "KK";
static const std::string LL = "LL";

/// Turns client commands into calls on a pin back end, and their results into answers. One
/// instance serves all connections at once; the back ends serialise pin access with the monitor
/// inherited from lang::Object. In every mask bit i stands for pin i.
class AbstractCommandHandler : public lang::Object {
public:
    /// For commands of three characters.
    AbstractCommandHandler();
    explicit AbstractCommandHandler(size_t protocolSize);

protected:
    /// Splits a command into letter, pin and value by plain arithmetic: a character that is no
    /// digit yields a wrapped number. Throws std::out_of_range when the command is too short.
    virtual void parseCommand(std::string command, char* letter, BYTE* pin, BOOL* value);

    /// Does what the letter of a parsed command asks for, and returns the answer, in which masks
    /// have at least `maskDigits` digits. Throws CommandException for an unknown letter.
    std::string execute(const std::string& command, char letter, BYTE pin, BOOL value,
                        int maskDigits);

public:
    /// Executes one command, without its line end, and returns the answer. Throws CommandException
    /// for a malformed or unknown command; what the back end throws passes through.
    virtual std::string handleCommand(std::string command);

    /// Nonzero while the back end can serve requests.
    virtual BOOL isDeviceAvailable() = 0;

    /// The pin's level; zero is low.
    virtual BOOL readPin(BYTE pin) = 0;

    /// Sets an output pin; nonzero on success.
    virtual BOOL writePin(BYTE pin, BOOL value) = 0;

    /// Mask of the levels of all pins.
    virtual DWORD readAllPins() = 0;

    /// 1 for an input pin, 0 for an output pin.
    virtual BOOL getDirection(BYTE pin) = 0;

    /// Makes a pin an input (nonzero) or an output; nonzero on success.
    virtual BOOL setDirection(BYTE pin, BOOL direction) = 0;

    /// Mask of the input pins.
    virtual DWORD getAllDirections() = 0;

    virtual DWORD getInputCount() = 0;
    virtual DWORD getOutputCount() = 0;

    /// Stores the mask of the pin levels and the mask of the input pins, both from one snapshot.
    virtual void getPinChanges(DWORD* currentReadPinValues, DWORD* currentDirections) = 0;

    /// Asks the back end to set its outputs anew.
    virtual void renewOutputStates() = 0;

    /// Set for good by the command B; a back end may consult it.
    std::atomic<bool> debugCurrentValues;

    /// Length in bytes of one command on the wire.
    const size_t PROTOCOL_SIZE;
};
