#pragma once

#include "AbstractPinStateMonitor.h"

class TestCommandHandler;

/// Polls the simulated pins at the interval of the command line. Test mode builds it paused and
/// never starts it, so no change message is sent there.
class TestPinStateMonitor : public AbstractPinStateMonitor {
public:
    TestPinStateMonitor(TestCommandHandler* commandHandler, bool paused);

    /// The values seen before a pause are kept over it, so what changed meanwhile is told once.
    void run() override;

private:
    void waitWhilePaused();
};
