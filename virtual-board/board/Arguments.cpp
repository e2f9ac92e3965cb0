#include "board/Arguments.h"

#include <charconv>
#include <stdexcept>
#include <string_view>

namespace arguments {

namespace {

constexpr int DECIMAL = 10;
constexpr int HEXADECIMAL = 16;

std::uint64_t parse(std::string_view text, int base) {
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || stopped != end) {
        throw std::invalid_argument("not a number: " + std::string(text));
    }
    return value;
}

} // namespace

std::uint64_t number(const std::string& text, std::uint64_t minimum, std::uint64_t maximum) {
    const std::uint64_t value = parse(text, DECIMAL);
    if (value < minimum || value > maximum) {
        throw std::invalid_argument("out of range: " + text);
    }
    return value;
}

std::uint64_t hexadecimal(const std::string& text, std::uint64_t maximum) {
    const std::string_view digits =
        text.starts_with("0x") ? std::string_view(text).substr(2) : std::string_view(text);
    const std::uint64_t value = parse(digits, HEXADECIMAL);
    if (value > maximum) {
        throw std::invalid_argument("out of range: " + text);
    }
    return value;
}

std::uint8_t byte(const std::string& text) {
    return static_cast<std::uint8_t>(hexadecimal(text, 0xFF));
}

std::vector<std::uint8_t> bytes(const std::vector<std::string>& words, std::size_t first) {
    std::vector<std::uint8_t> result;
    for (std::size_t index = first; index < words.size(); ++index) {
        const std::string& word = words[index];
        if (word.size() % 2 != 0) {
            throw std::invalid_argument("two digits a byte: " + word);
        }
        for (std::size_t offset = 0; offset < word.size(); offset += 2) {
            result.push_back(byte(word.substr(offset, 2)));
        }
    }
    return result;
}

bool onOrOff(const std::string& text) {
    if (text != "on" && text != "off") {
        throw std::invalid_argument("on or off expected: " + text);
    }
    return text == "on";
}

} // namespace arguments
