#pragma once

namespace concurrent {

/// Work that runs on a thread of its own.
class Runnable {
public:
    virtual ~Runnable() = default;

    /// Called once, on the new thread. Must catch what it can raise: an exception that leaves it
    /// ends the process.
    virtual void run() = 0;
};

} // namespace concurrent
