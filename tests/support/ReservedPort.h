#pragma once

#include <cstdint>

#include "support/Descriptor.h"

namespace support {

/// Keeps a TCP port from being handed to anybody else while a server under test, which allows
/// address reuse, can still bind it.
class ReservedPort {
public:
    /// Throws std::runtime_error when no port is to be had.
    ReservedPort();

    std::uint16_t number() const { return port_; }

private:
    Descriptor socket_;
    std::uint16_t port_ = 0;
};

} // namespace support
