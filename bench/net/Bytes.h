#pragma once

#include <string>
#include <vector>

#include "net/Socket.h"

namespace net {

/// The bytes that a row of hexadecimal digits stands for. Throws std::invalid_argument.
std::string fromHex(const std::string& digits);

/// Sends bytes and receives what comes back for them, time and again. An exchange is "HEX:COUNT",
/// the bytes to send and the number of bytes to come. Throws std::invalid_argument for any other.
void greet(const Socket& socket, const std::vector<std::string>& exchanges);

} // namespace net
