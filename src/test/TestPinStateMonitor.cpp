#include "test/TestPinStateMonitor.h"

#include <mutex>

#include "Launcher.h"
#include "log/Logger.h"
#include "log/OptionalDebug.h"
#include "test/TestCommandHandler.h"

namespace {

GpioLog::Logger* const LOGGER = new GpioLog::Logger("TestPinStateMonitor");

} // namespace

TestPinStateMonitor::TestPinStateMonitor(TestCommandHandler* handler, bool startPaused)
    : AbstractPinStateMonitor(handler, startPaused) {}

void TestPinStateMonitor::run() {
    DWORD previousValues = 0;
    while (isRunning()) {
        waitWhilePaused();
        checkForInputPinChangesAndBroadcastIfNeeded(&previousValues);
        getCommandHandler()->renewOutputStates();
        concurrent::Thread::sleep(Launcher::getSleepNanos());
        concurrent::Thread::yield();
    }
}

void TestPinStateMonitor::waitWhilePaused() {
    const std::lock_guard<lang::Object> guard(*this);
    while (isPaused()) {
        GpioLog::debugIfEnabled(*LOGGER, "TestPinStateMonitor is paused, waiting.");
        wait();
        if (!isPaused()) {
            GpioLog::debugIfEnabled(*LOGGER, "TestPinStateMonitor can continue.");
        }
    }
}
