#pragma once

#include <functional>
#include <string>

#include "board/EventLoop.h"

/// A Unix socket in the file system that hands over who connects.
class Listener {
public:
    /// `type` is SOCK_STREAM or SOCK_SEQPACKET; `accepted` owns the descriptor that it gets. Throws
    /// std::system_error when the path cannot be had.
    Listener(EventLoop& loop, std::string path, int type, std::function<void(int)> accepted);
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// Removes the path.
    ~Listener();

private:
    std::string path_;
    int descriptor_;
};
