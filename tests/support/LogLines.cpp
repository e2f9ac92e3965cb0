#include "support/LogLines.h"

#include <algorithm>
#include <cctype>

namespace support {

namespace {

// Stands for the digits of a time stamp.
constexpr std::string_view TIME_PATTERN = "[dddd-dd-dd dd:dd:dd]";

bool matches(char pattern, char character) {
    return pattern == 'd' ? std::isdigit(static_cast<unsigned char>(character)) != 0
                          : pattern == character;
}

} // namespace

std::vector<std::string> splitLines(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t length = std::min(text.find('\n'), text.size());
        lines.emplace_back(text.substr(0, length));
        text.remove_prefix(std::min(length + 1, text.size()));
    }
    return lines;
}

bool startsWithTime(std::string_view line) {
    return line.size() >= TIME_PATTERN.size() &&
           std::equal(TIME_PATTERN.begin(), TIME_PATTERN.end(), line.begin(), matches);
}

std::vector<std::string> logLines(std::string_view text) {
    std::vector<std::string> lines = splitLines(text);
    for (std::string& line : lines) {
        if (startsWithTime(line)) {
            line.erase(0, TIME_PATTERN.size());
        }
    }
    return lines;
}

std::size_t countOf(std::string_view part, std::string_view text) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string_view::npos;
         at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

std::string numberAfter(std::string_view before, std::string_view text) {
    const std::size_t at = text.find(before);
    if (at == std::string_view::npos) {
        return {};
    }
    const std::string_view rest = text.substr(at + before.size());
    return std::string(rest.substr(0, rest.find_first_of("],")));
}

} // namespace support
