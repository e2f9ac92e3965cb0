#include "lang/Text.h"

#include <array>
#include <charconv>

namespace lang {

std::string toHex(std::uint64_t number, int digits) {
    constexpr int BASE = 16;
    std::array<char, 2 * sizeof(number)> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number, BASE).ptr;
    const auto length = static_cast<std::size_t>(end - text.data());
    const auto width = static_cast<std::size_t>(digits);
    std::string padded(width > length ? width - length : 0, '0');
    return padded.append(text.data(), length);
}

} // namespace lang
