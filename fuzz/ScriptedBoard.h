#pragma once

#include "CommandModel.h"
#include "ftdi/FtdiService.h"

/// A board without a link: shows the state that a model was given and records what is written.
class ScriptedBoard : public FtdiService {
public:
    explicit ScriptedBoard(const fuzz::BoardModel& state) : model(state) {}

    std::string getFirmwareVersion() override { return model.firmwareVersion; }

    bool writePinToFTDI(unsigned char pin, bool value) override {
        written.emplace_back(pin, value);
        return model.writable;
    }

    bool isDeviceAvailable() override { return model.available; }

    void getPins(unsigned char* portA, unsigned char* portB, unsigned char* portC,
                 unsigned char* portD) override {
        *portA = model.portA;
        *portB = model.portB;
        *portC = model.portC;
        *portD = model.portD;
    }

    std::vector<std::pair<int, bool>> written;

private:
    const fuzz::BoardModel& model;
};
