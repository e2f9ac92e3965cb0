#pragma once

#include <string>

class AbstractCommandHandler;

namespace fuzz {

struct Outcome;

/// Lets the handler execute the command and compares what came of it with `expected`.
void expectSame(const Outcome& expected, AbstractCommandHandler& handler,
                const std::string& command);

} // namespace fuzz
