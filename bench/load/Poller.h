#pragma once

#include <cstddef>
#include <functional>

/// Waits for input on many descriptors with epoll.
class Poller {
public:
    Poller();
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;
    ~Poller();

    /// `index` is what poll() reports for this descriptor.
    void watch(int descriptor, std::size_t index);

    /// Waits for input, at most `milliseconds`, and calls `ready` for each index that has some.
    /// Returns the number of them.
    std::size_t poll(int milliseconds, const std::function<void(std::size_t)>& ready);

private:
    int epoll_;
};
