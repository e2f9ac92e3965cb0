#pragma once

#include <string>

#include "lang/Object.h"
#include "lang/exception/IllegalUnlockException.h"

namespace support {

/// What unlock() throws, as its message; empty when it throws nothing.
inline std::string unlockProblem(lang::Object& object) {
    try {
        object.unlock();
    } catch (lang::IllegalUnlockException& problem) {
        return problem.getMessage();
    }
    return {};
}

} // namespace support
