#pragma once

#include <string>

#include <netinet/in.h>

namespace io {

/// The IPv4 address in dotted decimal.
std::string dottedDecimal(const sockaddr_in& address);

} // namespace io
