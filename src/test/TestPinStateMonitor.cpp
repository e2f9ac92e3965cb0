#include "test/TestPinStateMonitor.h"

#include <mutex>

#include "Launcher.h"
#include "log/Logger.h"
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
        if (Launcher::isDebugEnabled()) {
            LOGGER->debug("TestPinStateMonitor is paused, waiting.");
        }
        wait();
        if (!isPaused() && Launcher::isDebugEnabled()) {
            LOGGER->debug("TestPinStateMonitor can continue.");
        }
    }
}
