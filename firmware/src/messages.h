#pragma once

#include <stdbool.h>
#include <stdint.h>

/// Four bytes each way: a letter, two data bytes, and the letter in lower case.
/// From the host: R asks for the inputs, V for the version, W writes an output, K restarts.
/// To the host: R and V answer, I reports changed inputs.

/// A byte from the host.
void handleByte(uint8_t byte);

/// Bytes from the host were lost: what came before belongs to no message.
void forgetBytes(void);

/// Whether the host has asked for a restart.
bool isRestartRequested(void);

/// Sends what is to be sent, as far as the line takes it.
void sendMessages(void);
