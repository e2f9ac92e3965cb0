#pragma once

#include <stdbool.h>
#include <stdint.h>

typedef enum { NOTHING_RECEIVED, BYTE_RECEIVED, BYTES_DAMAGED } Reception;

/// 115,200 baud, eight data bits, no parity, one stop bit.
void startUart(void);

/// Takes a byte that has arrived. There is room for two, which fill it in 174 microseconds. After
/// damage, what was received before does not belong to what follows.
Reception receiveByte(uint8_t* byte);

/// Whether sendByte() may be called.
bool canSendByte(void);

void sendByte(uint8_t byte);
