#pragma once

#include <stdbool.h>

#include "inputs.h"

/// Which changes of the inputs may be told, and when: sixteen at once, then forty a second. A host
/// looks for the answer to a request among its next twelve bytes only, so inputs that never rest
/// must not fill the line.

/// Refills the allowance; call once a tick.
void refillReports(void);

/// The host was told these levels in the answer to a request. The first time since the reset they
/// are what changes are measured against; nothing is reported before.
void inputsAnswered(Inputs levels);

/// Whether these levels differ from those that the host knows, and may be reported now.
bool isReportDue(Inputs levels);

/// They are being reported.
void inputsReported(Inputs levels);
