#pragma once

#include <string>

#include "support/Descriptor.h"

namespace support {

/// A network of this test's own, with a loopback interface that is up. The thread that made it is
/// in it, with what it starts from then on, until it enters another or the object goes.
class NetworkNamespace {
public:
    NetworkNamespace();
    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;
    /// The calling thread is back where it made the object.
    ~NetworkNamespace();

    /// Why it cannot be had; empty when it can.
    const std::string& whyNot() const { return refusal_; }

    void enter() const;

    int descriptor() const { return own_.number(); }

private:
    Descriptor home_;
    Descriptor own_;
    std::string refusal_;
};

} // namespace support
