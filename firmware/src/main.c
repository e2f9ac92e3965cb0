#include <avr/wdt.h>

#include "clock.h"
#include "inputs.h"
#include "messages.h"
#include "outputs.h"
#include "reports.h"
#include "uart.h"

#define RESTART_MS 500

/// The part starts counting the new period at once; a simulator may not before the reset.
#define SET_WATCHDOG(period)                                                                       \
    do {                                                                                           \
        wdt_enable(period);                                                                        \
        wdt_reset();                                                                               \
    } while (0)

/// Lets the watchdog do what a power cycle does.
static void resetNow(void) {
    SET_WATCHDOG(WDTO_15MS);
    for (;;) {
    }
}

/// Holds the bridge in reset for a while, long enough for the host to see it leave the bus.
static void continueRestart(void) {
    static uint16_t ticks;
    if (ticks == 0) {
        clearOutputs();
        pullBridgeReset();
    }
    if (++ticks == RESTART_MS * TICKS_PER_MS) {
        resetNow();
    }
}

static void receive(void) {
    uint8_t byte;
    for (;;) {
        switch (receiveByte(&byte)) {
        case NOTHING_RECEIVED:
            return;
        case BYTES_DAMAGED:
            forgetBytes();
            break;
        default:
            if (!isRestartRequested()) {
                handleByte(byte);
            }
        }
    }
}

/// Everything happens once a tick, in which less than two bytes pass on the line each way: the
/// receiver has room for them and the transmitter never runs dry. With no interrupt but the
/// clock's, no input can keep the processor from the line.
int main(void) {
    SET_WATCHDOG(WDTO_1S);
    startOutputs();
    startInputs();
    startUart();
    startClock();
    for (;;) {
        waitForTick();
        wdt_reset();
        sampleInputs();
        refillReports();
        receive();
        sendMessages();
        if (isRestartRequested()) {
            continueRestart();
        }
    }
}
