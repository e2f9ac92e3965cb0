#pragma once

#include <string>

namespace support {

/// The message of the `Problem` that `step` throws; anything else it throws passes through.
template <typename Problem, typename Step> std::string problemOf(Step step) {
    try {
        step();
    } catch (Problem& problem) {
        return problem.getMessage();
    }
    return "nothing was thrown";
}

} // namespace support
