#pragma once

#include <string>

namespace virtualusb {

/// Connects to the Unix socket `path` (SOCK_SEQPACKET or SOCK_STREAM, close-on-exec). Returns the
/// descriptor, which the caller owns, or a negative errno.
int connectTo(const std::string& path, int type);

/// Listens on a new Unix socket at `path`, non-blocking. Returns the descriptor, which the caller
/// owns, or a negative errno.
int listenOn(const std::string& path, int type);

} // namespace virtualusb
