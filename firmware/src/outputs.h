#pragma once

#include <stdbool.h>
#include <stdint.h>

/// Makes the thirteen outputs drive low, frees their pins from JTAG, and leaves the bridge alone.
void startOutputs(void);

/// Drives device pin 0 to 12; other numbers have no effect.
void writeOutput(uint8_t pin, bool isHigh);

/// Drives all outputs low.
void clearOutputs(void);

/// Pulls the bridge's RESET# low until the next reset of the microcontroller.
void pullBridgeReset(void);
