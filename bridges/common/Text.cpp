#include "Text.h"

#include <algorithm>
#include <charconv>

namespace bridge {

namespace {

/// More than any board has, and few enough to remember all of them.
constexpr unsigned HIGHEST_PIN = 999;

char lower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A'))
                                                : character;
}

} // namespace

std::string lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lower);
    return result;
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

std::optional<unsigned> pinFrom(std::string_view text) noexcept {
    unsigned pin = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, pin);
    const bool hasLeadingZero = text.size() > 1 && text.front() == '0';
    if (result.ec != std::errc() || result.ptr != end || hasLeadingZero || pin > HIGHEST_PIN) {
        return std::nullopt;
    }
    return pin;
}

} // namespace bridge
