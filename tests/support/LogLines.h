#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace support {

/// The text's lines without their line ends; a last line without one counts too.
std::vector<std::string> splitLines(std::string_view text);

/// True for a line that starts with a time stamp as the log writes it.
bool startsWithTime(std::string_view line);

/// The text's lines, each without its time stamp: "[owner] message". A line that does not start
/// with one stays whole.
std::vector<std::string> logLines(std::string_view text);

/// How often `part` occurs in `text`, without overlaps.
std::size_t countOf(std::string_view part, std::string_view text);

/// The number that stands between `before` and the next "]" or ",", as text; empty when `before`
/// does not occur.
std::string numberAfter(std::string_view before, std::string_view text);

} // namespace support
