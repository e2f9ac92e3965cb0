#pragma once

#include "lang/Object.h"
#include "lang/exception/IllegalUnlockException.h"

namespace support {

/// Whether the calling thread holds the monitor. One that it holds once is free for a moment.
inline bool isHeldHere(lang::Object& monitor) {
    try {
        monitor.unlock();
    } catch (lang::IllegalUnlockException&) {
        return false;
    }
    monitor.lock();
    return true;
}

} // namespace support
