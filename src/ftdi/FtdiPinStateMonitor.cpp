#include "ftdi/FtdiPinStateMonitor.h"

#include "ftdi/FtdiCommandHandler.h"
#include "ftdi/FtdiService.h"
#include "log/Logger.h"

namespace {

constexpr int QUICK_ATTEMPTS = 3;
constexpr long QUICK_RETRY_MICROS = 1000000;
constexpr long SLOW_RETRY_MICROS = 5000000;
constexpr long PREPARE_RETRY_MICROS = 500000;

GpioLog::Logger* const LOGGER = new GpioLog::Logger("FtdiPinStateMonitor");

} // namespace

FtdiPinStateMonitor::FtdiPinStateMonitor(FtdiCommandHandler* handler, bool restartBoard)
    : AbstractPinStateMonitor(handler, false), restart(restartBoard) {
    setDeviceDisconnectionCallback(nullptr, nullptr);
}

FtdiPinStateMonitor::FtdiPinStateMonitor(FtdiCommandHandler* handler)
    : FtdiPinStateMonitor(handler, false) {}

void FtdiPinStateMonitor::run() {
    LOGGER->debug("Starting FtdiPinStateMonitor");
    while (isRunning()) {
        if (!connectQuickly()) {
            connectSlowly();
        }
        serveDevice();
        callDeviceDisconnectionCallback();
        if (isRunning()) {
            LOGGER->debug("FTDI disconnected: preparing for reconnection");
        }
        ftdiService->deinitializeLibFTDI();
    }
    LOGGER->error("FTDI Pin Monitor Stopped....");
}

bool FtdiPinStateMonitor::connectQuickly() {
    for (int attempt = 0; attempt < QUICK_ATTEMPTS; ++attempt) {
        if (restart ? ftdiService->initWithReset() : ftdiService->initWithoutReset()) {
            return true;
        }
        concurrent::Thread::sleep(QUICK_RETRY_MICROS);
    }
    return false;
}

/// A board that is not found at once may be stuck, so it is restarted whatever was asked for.
void FtdiPinStateMonitor::connectSlowly() {
    bool connected = false;
    while (isRunning() && !connected) {
        LOGGER->debug("FTDI device not found: retrying to connect in 5 seconds");
        concurrent::Thread::sleep(SLOW_RETRY_MICROS);
        connected = ftdiService->initWithReset();
    }
}

void FtdiPinStateMonitor::serveDevice() {
    while (isRunning() && ftdiService->isDeviceAvailable()) {
        if (prepareDevice()) {
            readMessages();
        } else {
            concurrent::Thread::sleep(PREPARE_RETRY_MICROS);
        }
    }
}

bool FtdiPinStateMonitor::prepareDevice() {
    if (!ftdiService->versionRequestAndBlockTillResponse()) {
        return false;
    }
    if (!ftdiService->sendReadAndBlockTillResponse()) {
        LOGGER->debug("Error while sending first read-request");
        return false;
    }
    LOGGER->debug("Device is ready for actual use");
    return true;
}

/// Starts from no inputs high, so that the first message reports every one that is.
void FtdiPinStateMonitor::readMessages() {
    DWORD previousValues = 0;
    while (isRunning() && ftdiService->readAndParseMessage()) {
        checkForInputPinChangesAndBroadcastIfNeeded(&previousValues);
    }
}
