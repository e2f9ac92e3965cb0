#include "AbstractPinStateMonitor.h"

#include <cstdint>

#include "PinStateChangeListener.h"
#include "lang/Text.h"
#include "log/Logger.h"
#include "log/OptionalDebug.h"

namespace {

constexpr int NUMBER_DIGITS = 4;

GpioLog::Logger* const LOGGER = new GpioLog::Logger("AbstractPinStateMonitor");

} // namespace

AbstractPinStateMonitor::AbstractPinStateMonitor(AbstractCommandHandler* handler, bool startPaused)
    : paused(startPaused), commandHandler(handler) {}

AbstractPinStateMonitor::~AbstractPinStateMonitor() {
    stop();
    commandHandler = nullptr;
}

void AbstractPinStateMonitor::start() {
    if (running.exchange(true)) {
        return;
    }
    myThread = std::make_unique<concurrent::Thread>(this, "Pin state monitor");
    myThread->start();
}

void AbstractPinStateMonitor::pause() {
    if (!isRunning()) {
        return;
    }
    const std::lock_guard<lang::Object> guard(*this);
    if (paused) {
        return;
    }
    paused = true;
    if (pinStateChangeListener == nullptr) {
        LOGGER->debug("Resuming thread requested but no-one is interested in events, so isPaused "
                      "will return true until a listener is attached.");
    }
}

void AbstractPinStateMonitor::resume() {
    if (!isRunning()) {
        return;
    }
    const std::lock_guard<lang::Object> guard(*this);
    if (!paused) {
        return;
    }
    paused = false;
    GpioLog::debugIfEnabled(*LOGGER, "Notifying PinStateMonitor.");
    notifyAll();
}

void AbstractPinStateMonitor::stop() {
    if (running.exchange(false)) {
        myThread.reset();
    }
}

void AbstractPinStateMonitor::setDeviceDisconnectionCallback(void (*callback)(void*), void* arg) {
    const std::lock_guard<std::recursive_mutex> guard(deviceDisconnectionLock);
    deviceDisconnectionCallback = callback;
    deviceDisconnectionArg = arg;
}

void AbstractPinStateMonitor::checkForInputPinChangesAndBroadcastIfNeeded(DWORD* previousValues) {
    DWORD values = 0;
    DWORD directions = 0;
    commandHandler->getPinChanges(&values, &directions);
    const DWORD diff = *previousValues ^ values;
    if (static_cast<std::uint32_t>(diff) != 0) {
        GpioLog::debugIfEnabled(*LOGGER,
                                "A pin value changed :: Current pin values: currentDirections = "
                                "[%X] currentReadPinValues = [%X]",
                                static_cast<std::uint32_t>(directions),
                                static_cast<std::uint32_t>(values));
    }
    const DWORD changed = static_cast<std::uint32_t>(directions & diff);
    if (changed == 0) {
        return;
    }
    GpioLog::debugIfEnabled(*LOGGER, "input pin(s) changed.");
    broadCastInputPinChanges(changed, values);
    *previousValues = values;
}

void AbstractPinStateMonitor::callDeviceDisconnectionCallback() {
    const std::lock_guard<std::recursive_mutex> guard(deviceDisconnectionLock);
    if (deviceDisconnectionCallback != nullptr) {
        deviceDisconnectionCallback(deviceDisconnectionArg);
    }
}

void AbstractPinStateMonitor::broadCastInputPinChanges(DWORD changedPins, DWORD currentValues) {
    PinStateChangeListener* const listener = pinStateChangeListener;
    if (listener == nullptr) {
        return;
    }
    listener->pinStateChanged("U" + lang::toHex(changedPins, NUMBER_DIGITS) + "|" +
                              lang::toHex(currentValues, NUMBER_DIGITS) + "U");
    GpioLog::debugIfEnabled(*LOGGER, "Broadcasted input pin changes");
}
