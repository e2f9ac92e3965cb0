// Commands to the simulated pins, each answer compared with the model's.

#include "Check.h"
#include "CommandModel.h"
#include "CommandRunner.h"
#include "Input.h"
#include "test/TestCommandHandler.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    fuzz::SimulatedModel model;
    TestCommandHandler handler;
    for (const std::string& command : input.pieces()) {
        fuzz::expectSame(model.handle(command), handler, command);
    }
    return 0;
}
