#include "net/Bytes.h"

#include <charconv>
#include <stdexcept>

namespace net {

namespace {

std::size_t parse(const std::string& text, int base) {
    std::size_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || stopped != end) {
        throw std::invalid_argument("not a number: " + text);
    }
    return value;
}

} // namespace

std::string fromHex(const std::string& digits) {
    constexpr int BASE = 16;
    std::string result;
    for (std::size_t offset = 0; offset < digits.size(); offset += 2) {
        result.push_back(static_cast<char>(parse(digits.substr(offset, 2), BASE)));
    }
    return result;
}

void greet(const Socket& socket, const std::vector<std::string>& exchanges) {
    for (const std::string& exchange : exchanges) {
        const std::size_t colon = exchange.find(':');
        if (colon == std::string::npos) {
            throw std::invalid_argument("HEX:COUNT expected: " + exchange);
        }
        constexpr int DECIMAL = 10;
        socket.send(fromHex(exchange.substr(0, colon)));
        socket.receiveExactly(parse(exchange.substr(colon + 1), DECIMAL));
    }
}

} // namespace net
