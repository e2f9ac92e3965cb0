#include "clock.h"

#include <avr/interrupt.h>
#include <avr/io.h>
#include <avr/sleep.h>
#include <stdbool.h>

#define TICKS_PER_SECOND (TICKS_PER_MS * 1000UL)

static volatile bool hasTicked;

ISR(TIMER1_COMPA_vect) {
    hasTicked = true;
}

void startClock(void) {
    OCR1A = (F_CPU + TICKS_PER_SECOND / 2) / TICKS_PER_SECOND - 1;
    TCCR1B = _BV(WGM12) | _BV(CS10);
    TIMSK1 = _BV(OCIE1A);
    SMCR = _BV(SE); // idle: the timer and the serial line go on
}

void waitForTick(void) {
    cli();
    if (!hasTicked) {
        // No interrupt comes between these two, so a tick cannot be slept through.
        sei();
        sleep_cpu();
    }
    hasTicked = false;
    sei();
}
