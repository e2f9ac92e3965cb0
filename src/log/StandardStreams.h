#pragma once

#include <string_view>

namespace GpioLog {

/// Opens the null device on each of the descriptors 0 to 2 that the process was started without,
/// so that no socket ever gets such a number and receives the log. Call before anything is opened.
void reserveStandardStreams();

/// Writes `text` to the descriptor in one call, so that lines of different threads never mix; more
/// calls follow only when the system takes a part. What it refuses is dropped: a full disk, a full
/// pipe that was inherited non-blocking, or a reader that has gone while the broken-pipe signal is
/// ignored. A pipe whose reader stalls blocks the caller.
void writeWhole(int fileDescriptor, std::string_view text);

} // namespace GpioLog
