#pragma once

#include "CommandModel.h"
#include "ftdi/FtdiService.h"

/// A board without a link: shows the state that a model was given and records what is written.
class ScriptedBoard : public FtdiService {
public:
    explicit ScriptedBoard(const fuzz::BoardModel& state) : model_(state) {}

    std::string getFirmwareVersion() override { return model_.firmwareVersion; }

    bool writePinToFTDI(unsigned char pin, bool value) override {
        written.emplace_back(pin, value);
        return model_.writable;
    }

    bool isDeviceAvailable() override { return model_.available; }

    void getPins(unsigned char* portA, unsigned char* portB, unsigned char* portC,
                 unsigned char* portD) override {
        *portA = model_.portA;
        *portB = model_.portB;
        *portC = model_.portC;
        *portD = model_.portD;
    }

    std::vector<std::pair<int, bool>> written;

private:
    const fuzz::BoardModel& model_;
};
