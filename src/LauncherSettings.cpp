// Apart from the start-up code, so that what asks for a setting needs nothing else of it.
#include "Launcher.h"

int Launcher::portNumber = 0;
bool Launcher::useFtdiCommandHandler = false;
bool Launcher::testModeEnabled = false;
bool Launcher::debugEnabled = false;
long Launcher::sleepNanos = 0;
bool Launcher::help = false;
bool Launcher::restart = false;
size_t Launcher::usedProtocolSize = 0;

bool Launcher::isDebugEnabled() {
    return debugEnabled;
}

long Launcher::getSleepNanos() {
    return sleepNanos;
}

bool Launcher::isHelpEnabled() {
    return help;
}

int Launcher::getPortNumber() {
    return portNumber;
}

bool Launcher::isTestModeEnabled() {
    return testModeEnabled;
}
