#pragma once

#include <gpio-client/PinWatcher.h>

/// Shows all pins live on the terminal until q is pressed or a stop is requested. Restores the
/// terminal however it ends. Throws UsageError when standard output is no terminal.
void runPanel(gpioclient::PinWatcher::Config config);
