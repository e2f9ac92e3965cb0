#pragma once

#include <netinet/in.h>

#include <string>

namespace io {

/// The IPv4 address in dotted decimal.
std::string dottedDecimal(const sockaddr_in& address);

} // namespace io
