#pragma once

#include <cstddef>
#include <string>

namespace net {

/// The bytes that a row of hexadecimal digits stands for. Throws std::invalid_argument.
std::string fromHex(const std::string& digits);

/// Bytes to send and the number of bytes that come back for them, written as "HEX:COUNT".
struct Exchange {
    /// Throws std::invalid_argument.
    explicit Exchange(const std::string& text);

    std::string request;
    std::size_t answerLength = 0;
};

} // namespace net
