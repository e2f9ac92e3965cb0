#pragma once

#include <csignal>

namespace support {

/// How often this process got the broken-pipe signal while it lives.
class BrokenPipes {
public:
    BrokenPipes() : before_(std::signal(SIGPIPE, [](int) { count = count + 1; })) { count = 0; }
    BrokenPipes(const BrokenPipes&) = delete;
    BrokenPipes& operator=(const BrokenPipes&) = delete;
    ~BrokenPipes() { static_cast<void>(std::signal(SIGPIPE, before_)); }

    static int seen() { return count; }

private:
    static inline volatile std::sig_atomic_t count = 0;
    void (*before_)(int);
};

} // namespace support
