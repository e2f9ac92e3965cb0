#pragma once

#include <string>
#include <string_view>

namespace lang {

/// `number` in lower-case hexadecimal, padded on the left with '0' to at least `digits` digits;
/// a wider number keeps all of its digits.
std::string toHex(unsigned long number, int digits);

/// What a C string of the same bytes would hold: the text up to its first zero byte.
std::string upToZero(std::string_view text);

} // namespace lang
