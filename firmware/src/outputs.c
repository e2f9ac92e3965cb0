#include "outputs.h"

#include <avr/io.h>

#define OUTPUT_COUNT 13
#define PINS_OF_PORT_C 8
#define FIRST_PIN_OF_PORT_D PD2 // device pin 8

static const uint8_t PORT_D_OUTPUTS = _BV(PD2) | _BV(PD3) | _BV(PD4) | _BV(PD5) | _BV(PD6);

/// JTAG has PC2 to PC5 unless the fuse is off. The bit counts when it is written twice within four
/// cycles, which the compiler would not promise.
static void freePinsFromJtag(void) {
    const uint8_t control = MCUCR | _BV(JTD);
    __asm__ volatile("out %0, %1\n\t"
                     "out %0, %1"
                     :
                     : "I"(_SFR_IO_ADDR(MCUCR)), "r"(control));
}

void startOutputs(void) {
    freePinsFromJtag();
    clearOutputs();
    DDRC = 0xFF;
    DDRD |= PORT_D_OUTPUTS;
}

void writeOutput(uint8_t pin, bool isHigh) {
    if (pin >= OUTPUT_COUNT) {
        return;
    }
    volatile uint8_t* port = &PORTC;
    uint8_t bit = pin;
    if (pin >= PINS_OF_PORT_C) {
        port = &PORTD;
        bit = (uint8_t)(pin - PINS_OF_PORT_C + FIRST_PIN_OF_PORT_D);
    }
    const uint8_t mask = (uint8_t)(1U << bit);
    *port = isHigh ? *port | mask : *port & (uint8_t)~mask;
}

void clearOutputs(void) {
    PORTC = 0;
    PORTD &= (uint8_t)~PORT_D_OUTPUTS;
}

void pullBridgeReset(void) {
    // Open drain: the port bit stays 0, so the pin is either low or open, never high.
    DDRD |= _BV(PD7);
}
