#pragma once

#include <string>

/// Receives the change messages of a pin-state monitor.
class PinStateChangeListener {
public:
    virtual ~PinStateChangeListener() = default;

    /// Called on the monitor's thread with a finished message, without a line end.
    virtual void pinStateChanged(std::string message) = 0;
};
