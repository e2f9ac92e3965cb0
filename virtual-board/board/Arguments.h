#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Reading the words of commands and options; all throw std::invalid_argument with the reason.
namespace arguments {

/// A decimal number between `minimum` and `maximum`.
std::uint64_t number(const std::string& text, std::uint64_t minimum, std::uint64_t maximum);

/// A hexadecimal number up to `maximum`, with or without 0x.
std::uint64_t hexadecimal(const std::string& text, std::uint64_t maximum);

std::uint8_t byte(const std::string& text);

/// Bytes from `words[first]` on; a word may hold several ("49ff01").
std::vector<std::uint8_t> bytes(const std::vector<std::string>& words, std::size_t first);

/// "on" or "off".
bool onOrOff(const std::string& text);

} // namespace arguments
