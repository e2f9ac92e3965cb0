#pragma once

#include <string>

/// Receives the change messages of a pin-state monitor.
class PinStateChangeListener {
public:
    PinStateChangeListener() = default;
    PinStateChangeListener(const PinStateChangeListener&) = delete;
    PinStateChangeListener& operator=(const PinStateChangeListener&) = delete;
    virtual ~PinStateChangeListener() = default;

    /// Called on the monitor's thread with a finished message, without a line end.
    virtual void pinStateChanged(std::string message) = 0;
};
