#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace bridge {

/// Of ASCII letters, whatever the locale.
std::string lowered(std::string_view text);
bool equalsIgnoringCase(std::string_view left, std::string_view right);

/// A pin number where each pin has one name: decimal, no sign, no leading zeros, at most 999.
std::optional<unsigned> pinFrom(std::string_view text) noexcept;

} // namespace bridge
