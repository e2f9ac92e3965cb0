#pragma once

#include <string>
#include <string_view>

namespace bridge {

/// Writes a line to standard error, from any thread. A reader that does not read is never waited
/// for: lines that find no room are counted, and the next one that does tells their number. Bytes
/// that are no printable ASCII are replaced, since some of them come from the network.
void log(std::string_view text);

/// What stands before each line; set before there is a second thread.
void setLogName(const std::string& program);

} // namespace bridge
