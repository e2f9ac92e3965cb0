#pragma once

#include "AbstractCommandHandler.h"

class FtdiService;

/// The board's pins: 0 to 12 are outputs, 13 to 28 inputs. Commands have four characters, with two
/// hexadecimal digits for the pin. The handler's own monitor is held around calls to the service
/// and taken before the service's locks.
class FtdiCommandHandler : public AbstractCommandHandler {
public:
    FtdiCommandHandler();

protected:
    /// A character that is no upper-case hexadecimal digit is logged and counts as 0.
    void parseCommand(std::string command, char* letter, BYTE* pin, BOOL* value) override;

public:
    /// Throws CommandException for a malformed or unknown command, and DeviceUnavailableException
    /// for any of the right length while the board is not there.
    std::string handleCommand(std::string command) override;

    BOOL isDeviceAvailable() override;

    /// The input's bit within its port, so a high level is any nonzero value; an output or a pin
    /// that does not exist is logged and reads low.
    BOOL readPin(BYTE pin) override;

    /// Inputs and pins that do not exist fail without a message to the board.
    BOOL writePin(BYTE pin, BOOL value) override;

    /// Ports A, B, C and D, eight bits each from bit 0 up; port D is widened with its sign.
    DWORD readAllPins() override;

    /// 1 for an output and 0 for an input: the opposite of getAllDirections().
    BOOL getDirection(BYTE pin) override;

    /// Logged, and always fails: the board's directions are fixed.
    BOOL setDirection(BYTE pin, BOOL direction) override;

    /// Every bit from 13 upward.
    DWORD getAllDirections() override;

    DWORD getInputCount() override;
    DWORD getOutputCount() override;

    /// The input levels at the bits of their pins.
    void getPinChanges(DWORD* currentReadPinValues, DWORD* currentDirections) override;

    void renewOutputStates() override;

    /// To be called before any other operation; the service stays the caller's.
    virtual void setFtdiService(FtdiService* service) { ftdiService = service; }

private:
    FtdiService* ftdiService = nullptr;
};
