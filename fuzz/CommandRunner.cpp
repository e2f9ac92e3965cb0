#include "CommandRunner.h"

#include "AbstractCommandHandler.h"
#include "Check.h"
#include "CommandModel.h"
#include "exception/CommandException.h"
#include "exception/DeviceUnavailableException.h"

namespace fuzz {

namespace {

Outcome run(AbstractCommandHandler& handler, const std::string& command) {
    try {
        return {Outcome::ANSWER, handler.handleCommand(command)};
    } catch (CommandException& problem) {
        return {Outcome::COMMAND_ERROR, problem.getMessage()};
    } catch (DeviceUnavailableException& problem) {
        return {Outcome::UNAVAILABLE, problem.getMessage()};
    }
}

} // namespace

void expectSame(const Outcome& expected, AbstractCommandHandler& handler,
                const std::string& command) {
    const Outcome actual = run(handler, command);
    expectEqual("kind of outcome of [" + command + "]", expected.kind, actual.kind);
    expectEqual("outcome of [" + command + "]", expected.text, actual.text);
}

} // namespace fuzz
