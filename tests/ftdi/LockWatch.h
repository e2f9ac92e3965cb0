#pragma once

#include "lang/Object.h"

/// Counts how often any thread asks for a monitor, held or not, as long as it lives. One watch at a
/// time. The linker sends the executable's calls here: see --wrap.
class LockWatch {
public:
    explicit LockWatch(const lang::Object& monitor);
    LockWatch(const LockWatch&) = delete;
    LockWatch& operator=(const LockWatch&) = delete;
    ~LockWatch();

    int requests() const;
};

/// Whether the calling thread holds the monitor.
bool isHeldHere(const lang::Object& monitor);
