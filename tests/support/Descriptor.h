#pragma once

#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace support {

/// Owns a file descriptor.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : held_(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : held_(std::exchange(other.held_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(held_, other.held_);
        return *this;
    }
    ~Descriptor() { reset(); }

    /// -1 when it holds none.
    int number() const { return held_; }

    /// Gives the descriptor away.
    int release() { return std::exchange(held_, -1); }

    void reset() {
        if (held_ != -1) {
            ::close(release());
        }
    }

private:
    int held_ = -1;
};

inline bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

} // namespace support
