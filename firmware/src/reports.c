#include "reports.h"

#include <stdint.h>

#include "clock.h"

#define BURST 16
#define REPORTS_PER_SECOND 40
#define TICKS_PER_REPORT (1000 * TICKS_PER_MS / REPORTS_PER_SECOND)

static bool hasBaseline;
static Inputs told;
static uint8_t allowance = BURST;
static uint8_t ticks;

void refillReports(void) {
    if (allowance < BURST && ++ticks == TICKS_PER_REPORT) {
        ticks = 0;
        ++allowance;
    }
}

void inputsAnswered(Inputs levels) {
    if (!hasBaseline) {
        hasBaseline = true;
        told = levels;
    }
}

bool isReportDue(Inputs levels) {
    return hasBaseline && allowance > 0 && (levels.a != told.a || levels.b != told.b);
}

void inputsReported(Inputs levels) {
    told = levels;
    --allowance;
}
