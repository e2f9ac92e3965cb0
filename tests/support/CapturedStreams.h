#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "support/CapturedFile.h"
#include "support/Eventually.h"
#include "support/LogLines.h"

namespace support {

/// What was written to a standard output and a standard error so far.
class CapturedStreams {
public:
    std::string output() const { return outputFile_.text(); }
    std::string error() const { return errorFile_.text(); }

    /// The same as lines without time stamps.
    std::vector<std::string> outputLines() const { return logLines(output()); }
    std::vector<std::string> errorLines() const { return logLines(error()); }

    /// Waits until `text` has been written at least `count` times.
    testing::AssertionResult waitForOutput(std::string_view text, std::size_t count = 1,
                                           std::chrono::milliseconds limit = PATIENCE) const {
        return outputFile_.waitFor(text, count, limit);
    }
    testing::AssertionResult waitForError(std::string_view text, std::size_t count = 1,
                                          std::chrono::milliseconds limit = PATIENCE) const {
        return errorFile_.waitFor(text, count, limit);
    }

protected:
    CapturedFile outputFile_;
    CapturedFile errorFile_;
};

} // namespace support
