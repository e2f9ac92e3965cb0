#pragma once

#include <cstdint>
#include <string>

/// How answers look on the wire: the letter of the command, a payload, and the letter again.
namespace AnswerFormat {

std::string frame(char letter, const std::string& payload);

/// The payload is "1" when `flag` is nonzero, else "0".
std::string frameFlag(char letter, int flag);

/// The payload is `number` in hexadecimal with at least `digits` digits.
std::string frameNumber(char letter, std::uint64_t number, int digits);

} // namespace AnswerFormat
