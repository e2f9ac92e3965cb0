#pragma once

#include "support/CapturedStreams.h"
#include "support/Descriptor.h"

namespace support {

/// Collects what this process writes to standard output and standard error, from construction to
/// destruction. In a failed test the destructor passes it on.
class LogCapture : public CapturedStreams {
public:
    LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

private:
    Descriptor savedOutput_;
    Descriptor savedError_;
};

} // namespace support
