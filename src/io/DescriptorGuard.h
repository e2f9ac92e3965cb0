#pragma once

#include <atomic>
#include <mutex>

namespace io {

/// Keeps a socket's descriptor number from being closed, and so handed out again, while a system
/// call of another thread still uses it. The owner keeps the number, -1 once closed; the guard
/// counts the calls under way, and the last of them closes a socket whose closing it held up.
class DescriptorGuard {
public:
    /// One system call's hold on the descriptor.
    class Use {
    public:
        explicit Use(DescriptorGuard& guard);
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        ~Use();

        /// The number to call with, or -1 when the socket is closed.
        int number() const { return held; }

    private:
        DescriptorGuard& guard;
        int held = -1;
    };

    /// The owner's number, which must live as long as the guard.
    explicit DescriptorGuard(std::atomic<int>& descriptor);

    /// Shuts the socket down in both directions, which wakes the calls blocked in it, sets the
    /// number to -1 and closes the socket as soon as no call uses it. Harmless when closed.
    void close();

    /// Whether the socket is closed; waits for a close under way.
    bool isClosed();

private:
    std::atomic<int>& descriptor;
    std::mutex mutex;
    int users = 0;
    int closeLater = -1;
};

} // namespace io
