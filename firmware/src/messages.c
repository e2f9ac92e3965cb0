#include "messages.h"

#include "inputs.h"
#include "outputs.h"
#include "reports.h"
#include "uart.h"

#define MESSAGE_LENGTH 4
#define LOWER_CASE 0x20 // what turns an upper-case letter into a lower-case one

static uint8_t window[MESSAGE_LENGTH];

static uint8_t outgoing[MESSAGE_LENGTH];
static uint8_t sentBytes = MESSAGE_LENGTH;

/// Letters of the answers that are owed, oldest first. The indices wrap around as bytes do.
static uint8_t owed[256];
static uint8_t firstOwed;
static uint8_t endOfOwed;

static bool restartRequested;

/// More than 255 at a time are dropped; only a host that asks faster than the line answers sees it.
static void owe(uint8_t letter) {
    const uint8_t next = (uint8_t)(endOfOwed + 1);
    if (next != firstOwed) {
        owed[endOfOwed] = letter;
        endOfOwed = next;
    }
}

static void handleWrite(uint8_t pin, uint8_t value) {
    if (value == '0' || value == '1') {
        writeOutput(pin, value == '1');
    }
}

static bool handleMessage(void) {
    switch (window[0]) {
    case 'R':
    case 'V':
        owe(window[0]);
        return true;
    case 'W':
        handleWrite(window[1], window[2]);
        return true;
    case 'K':
        restartRequested = true;
        return true;
    default:
        return false;
    }
}

void forgetBytes(void) {
    window[0] = window[1] = window[2] = window[3] = 0;
}

void handleByte(uint8_t byte) {
    window[0] = window[1];
    window[1] = window[2];
    window[2] = window[3];
    window[3] = byte;
    if (window[3] == (window[0] | LOWER_CASE) && handleMessage()) {
        forgetBytes();
    }
}

bool isRestartRequested(void) {
    return restartRequested;
}

static void compose(uint8_t letter, uint8_t first, uint8_t second) {
    outgoing[0] = letter;
    outgoing[1] = first;
    outgoing[2] = second;
    outgoing[3] = letter | LOWER_CASE;
    sentBytes = 0;
}

static void composeAnswer(uint8_t letter, Inputs levels) {
    if (letter == 'V') {
        compose(letter, VERSION_MAJOR, VERSION_MINOR);
    } else {
        compose(letter, levels.a, levels.b);
        inputsAnswered(levels);
    }
}

/// Composed only now, so that the last message always tells the newest levels. An answer waits for
/// one report at the most, since the host looks for it among its next twelve bytes.
static void composeNext(void) {
    static bool hasReported;
    const Inputs levels = getInputs();
    const bool isOwing = firstOwed != endOfOwed;
    if (isReportDue(levels) && !(hasReported && isOwing)) {
        compose('I', levels.a, levels.b);
        inputsReported(levels);
        hasReported = true;
    } else if (isOwing) {
        composeAnswer(owed[firstOwed++], levels);
        hasReported = false;
    }
}

void sendMessages(void) {
    while (canSendByte()) {
        // A message under way is finished; nothing new begins before a restart.
        if (sentBytes == MESSAGE_LENGTH && !restartRequested) {
            composeNext();
        }
        if (sentBytes == MESSAGE_LENGTH) {
            return;
        }
        sendByte(outgoing[sentBytes++]);
    }
}
