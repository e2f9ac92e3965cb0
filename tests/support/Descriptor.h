#pragma once

#include <utility>

#include <unistd.h>

namespace support {

/// Owns a file descriptor.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : held(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : held(std::exchange(other.held, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(held, other.held);
        return *this;
    }
    ~Descriptor() { reset(); }

    /// -1 when it holds none.
    int number() const { return held; }

    /// Gives the descriptor away.
    int release() { return std::exchange(held, -1); }

    void reset() {
        if (held != -1) {
            ::close(release());
        }
    }

private:
    int held = -1;
};

} // namespace support
