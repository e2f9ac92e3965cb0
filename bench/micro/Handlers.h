#pragma once

#include "ftdi/FtdiCommandHandler.h"
#include "ftdi/FtdiService.h"
#include "test/TestCommandHandler.h"

/// A board that is always there and whose link takes every message at once.
class SilentFtdiService : public FtdiService {
public:
    bool isDeviceAvailable() override { return true; }

private:
    bool writeToFTDI(unsigned char* /*buffer*/, int /*length*/) override { return true; }
};

/// Both back ends, ready to handle commands in process.
struct Handlers {
    Handlers() { board.setFtdiService(&service); }

    TestCommandHandler simulated;
    SilentFtdiService service;
    FtdiCommandHandler board;
};
