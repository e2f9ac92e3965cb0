#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "support/CapturedFile.h"
#include "support/Descriptor.h"
#include "support/Eventually.h"

namespace support {

/// Collects what this process writes to standard output and standard error, from construction to
/// destruction. In a failed test the destructor passes it on.
class LogCapture {
public:
    LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

    std::string output() const { return outputFile_.text(); }
    std::string error() const { return errorFile_.text(); }

    /// The lines of standard output and standard error without their time stamps.
    std::vector<std::string> outputLines() const;
    std::vector<std::string> errorLines() const;

    /// Waits until `text` has been written `count` times.
    testing::AssertionResult waitForOutput(std::string_view text, std::size_t count = 1) const;
    testing::AssertionResult waitForError(std::string_view text, std::size_t count = 1) const;

private:
    CapturedFile outputFile_;
    CapturedFile errorFile_;
    Descriptor savedOutput_;
    Descriptor savedError_;
};

/// Waits until `file` holds `text` at least `count` times.
testing::AssertionResult waitForText(const CapturedFile& file, std::string_view text,
                                     std::size_t count, std::chrono::milliseconds limit = PATIENCE);

} // namespace support
