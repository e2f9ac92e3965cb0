#pragma once

#include <cstdint>
#include <string>

namespace lang {

/// `number` in lower-case hexadecimal, padded on the left with '0' to at least `digits` digits;
/// a wider number keeps all of its digits.
std::string toHex(std::uint64_t number, int digits);

} // namespace lang
