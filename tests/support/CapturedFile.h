#pragma once

#include <cstddef>
#include <string>

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

private:
    Descriptor file_;
};

} // namespace support
