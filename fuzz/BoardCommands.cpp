// Commands to the board's pins, each answer and each write compared with the model's.

#include "Check.h"
#include "CommandModel.h"
#include "CommandRunner.h"
#include "Input.h"
#include "ScriptedBoard.h"
#include "ftdi/FtdiCommandHandler.h"

namespace {

/// Flags, four ports and a line with the version come first.
fuzz::BoardModel readState(fuzz::Input& input) {
    fuzz::BoardModel model;
    const unsigned char flags = input.byte();
    model.available = (flags & 1U) != 0;
    model.writable = (flags & 2U) != 0;
    model.portA = input.byte();
    model.portB = input.byte();
    model.portC = input.byte();
    model.portD = input.byte();
    model.firmwareVersion = input.upTo('\n');
    return model;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    fuzz::BoardModel model = readState(input);
    ScriptedBoard board(model);
    FtdiCommandHandler handler;
    handler.setFtdiService(&board);
    for (const std::string& command : input.pieces()) {
        fuzz::expectSame(model.handle(command), handler, command);
    }
    fuzz::expectTrue("the board was told other outputs than it should have been",
                     board.written == model.written);
    return 0;
}
