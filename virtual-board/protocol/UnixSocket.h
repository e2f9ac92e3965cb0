#pragma once

#include <string>
#include <string_view>

namespace virtualusb {

/// Connects to the Unix socket `path` (SOCK_SEQPACKET or SOCK_STREAM, close-on-exec). Returns the
/// descriptor, which the caller owns; throws std::system_error.
int connectTo(const std::string& path, int type);

/// Listens on a new Unix socket at `path`, non-blocking. Returns and throws as connectTo() does.
int listenOn(const std::string& path, int type);

/// Sends all of it, waiting where it must; false when the other end is gone.
bool sendAll(int descriptor, std::string_view bytes);

} // namespace virtualusb
