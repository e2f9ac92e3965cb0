#pragma once

/// Ticks in a millisecond: a tick is 100 microseconds (0.03 % long).
#define TICKS_PER_MS 10

/// Starts the ticks.
void startClock(void);

/// Sleeps until the next tick; returns at once when one has passed since the last call.
void waitForTick(void);
