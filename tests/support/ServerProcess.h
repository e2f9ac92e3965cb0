#pragma once

#include <cstdint>

#include "support/Process.h"

namespace support {

/// How a server is started: in test mode on a free port, unless the arguments are others.
struct ServerOptions : ProcessOptions {
    ServerOptions();
};

/// A server process of its own.
class ServerProcess : public Process {
public:
    explicit ServerProcess(const ServerOptions& options = {}) : Process(options) {}

    /// Waits until the server listens and returns the port. Throws std::runtime_error when it does
    /// not, or has ended.
    std::uint16_t port();
};

} // namespace support
