#include "net/Arguments.h"

#include <charconv>
#include <limits>
#include <stdexcept>

namespace net {

namespace {

std::uint64_t parse(const std::string& text, int base) {
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || stopped != end) {
        throw std::invalid_argument("not a number: " + text);
    }
    return value;
}

} // namespace

Arguments::Arguments(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    std::size_t index = 0;
    if (!words.empty() && !words.front().starts_with("--")) {
        leading_ = words.front();
        ++index;
    }
    for (; index + 1 < words.size(); index += 2) {
        pairs_.emplace_back(words[index], words[index + 1]);
    }
    if (index < words.size()) {
        throw std::invalid_argument("value missing after " + words[index]);
    }
}

std::vector<std::string> Arguments::all(const std::string& name) const {
    std::vector<std::string> result;
    for (const auto& [key, value] : pairs_) {
        if (key == "--" + name) {
            result.push_back(value);
        }
    }
    return result;
}

bool Arguments::has(const std::string& name) const {
    return !all(name).empty();
}

std::string Arguments::text(const std::string& name) const {
    const auto values = all(name);
    if (values.empty()) {
        throw std::invalid_argument("--" + name + " is needed");
    }
    return values.back();
}

std::string Arguments::text(const std::string& name, const std::string& otherwise) const {
    return has(name) ? text(name) : otherwise;
}

std::uint64_t Arguments::number(const std::string& name) const {
    constexpr int DECIMAL = 10;
    return parse(text(name), DECIMAL);
}

std::uint64_t Arguments::number(const std::string& name, std::uint64_t otherwise) const {
    return has(name) ? number(name) : otherwise;
}

std::uint16_t Arguments::port(const std::string& name) const {
    const std::uint64_t value = number(name);
    if (value == 0 || value > std::numeric_limits<std::uint16_t>::max()) {
        throw std::invalid_argument("not a port: " + text(name));
    }
    return static_cast<std::uint16_t>(value);
}

std::string fromHex(const std::string& digits) {
    constexpr int BASE = 16;
    std::string result;
    for (std::size_t offset = 0; offset < digits.size(); offset += 2) {
        result.push_back(static_cast<char>(parse(digits.substr(offset, 2), BASE)));
    }
    return result;
}

Exchange::Exchange(const std::string& text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        throw std::invalid_argument("HEX:COUNT expected: " + text);
    }
    constexpr int DECIMAL = 10;
    request = fromHex(text.substr(0, colon));
    answerLength = parse(text.substr(colon + 1), DECIMAL);
}

} // namespace net
