#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "support/Descriptor.h"

namespace support {

/// A nameless temporary file that collects what is written to its descriptor.
class CapturedFile {
public:
    /// Throws std::runtime_error when the file cannot be made.
    CapturedFile();

    /// Opened for appending; closed on exec.
    int descriptor() const { return file_.number(); }

    /// All that was written from `offset` on.
    std::string text(std::size_t offset = 0) const;

    /// Waits until it holds `wanted` at least `count` times.
    testing::AssertionResult waitFor(std::string_view wanted, std::size_t count,
                                     std::chrono::milliseconds limit) const;

private:
    Descriptor file_;
};

} // namespace support
