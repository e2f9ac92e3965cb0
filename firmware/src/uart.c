#include "uart.h"

#include <avr/io.h>

#define BAUD 115200UL
#define CYCLES_PER_UNIT 16 // of the divider, at normal speed

void startUart(void) {
    PORTD |= _BV(PD0); // an unconnected line idles
    UBRR0 = F_CPU / (CYCLES_PER_UNIT * BAUD) - 1;
    UCSR0A = 0;
    UCSR0C = _BV(UCSZ01) | _BV(UCSZ00);
    UCSR0B = _BV(RXEN0) | _BV(TXEN0);
}

Reception receiveByte(uint8_t* byte) {
    const uint8_t status = UCSR0A; // describes the byte that is read next
    if ((status & _BV(RXC0)) == 0) {
        return NOTHING_RECEIVED;
    }
    *byte = UDR0;
    return (status & (_BV(FE0) | _BV(DOR0))) == 0 ? BYTE_RECEIVED : BYTES_DAMAGED;
}

bool canSendByte(void) {
    return (UCSR0A & _BV(UDRE0)) != 0;
}

void sendByte(uint8_t byte) {
    UDR0 = byte;
}
