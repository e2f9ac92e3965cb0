#include "inputs.h"

#include <avr/io.h>
#include <util/delay.h>

#include "clock.h"

#if DEBOUNCE_MS < 0 || DEBOUNCE_MS > 75
#error "DEBOUNCE_MS must be 0 to 75"
#endif

static Inputs levels;

void startInputs(void) {
    PORTA = 0xFF;
    PORTB = 0xFF;
    _delay_us(50); // open inputs rise through the pull-ups
    levels.a = PINA;
    levels.b = PINB;
}

Inputs getInputs(void) {
    return levels;
}

#if DEBOUNCE_MS == 0

void sampleInputs(void) {
    levels.a = PINA;
    levels.b = PINB;
}

#else

/// A two-bit counter for each pin of a port: bit n of both bytes is the counter of pin n.
typedef struct {
    uint8_t low;
    uint8_t high;
} Counters;

/// Four samples that agree span three of these.
#define TICKS_BETWEEN_SAMPLES ((DEBOUNCE_MS * TICKS_PER_MS + 2) / 3)

/// Returns the pins that differ from `level` for the fourth time running.
static uint8_t countDifferences(Counters* counters, uint8_t level, uint8_t sample) {
    const uint8_t different = level ^ sample;
    const uint8_t settled = different & counters->low & counters->high;
    counters->high = (counters->high ^ counters->low) & different & (uint8_t)~settled;
    counters->low = (uint8_t)~counters->low & different & (uint8_t)~settled;
    return settled;
}

void sampleInputs(void) {
    static Counters countersA;
    static Counters countersB;
    static uint8_t ticks;
    if (++ticks < TICKS_BETWEEN_SAMPLES) {
        return;
    }
    ticks = 0;
    levels.a ^= countDifferences(&countersA, levels.a, PINA);
    levels.b ^= countDifferences(&countersB, levels.b, PINB);
}

#endif
