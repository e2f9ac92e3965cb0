#pragma once

#include <stdint.h>

/// Levels of the sixteen inputs: bit n of `a` is PAn, bit n of `b` is PBn; high is 1.
typedef struct {
    uint8_t a;
    uint8_t b;
} Inputs;

/// Turns the pull-ups on and takes the first sample.
void startInputs(void);

/// Looks at the pins; call once a tick.
void sampleInputs(void);

/// The levels that count at present: those of the last sample, or what outlived the debouncing.
Inputs getInputs(void);
