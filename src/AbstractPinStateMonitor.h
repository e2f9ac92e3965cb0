#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "AbstractCommandHandler.h"
#include "concurrent/Runnable.h"
#include "concurrent/Thread.h"
#include "lang/Object.h"

class PinStateChangeListener;

/// Watches the input pins of a back end on a thread of its own and tells one listener when some
/// change. Concrete monitors supply the loop, run(). The monitor's own lock guards the pause
/// request and is the one that a paused loop waits on.
class AbstractPinStateMonitor : public lang::Object, public concurrent::Runnable {
public:
    /// The command handler stays the caller's. Starts no thread.
    AbstractPinStateMonitor(AbstractCommandHandler* commandHandler, bool paused);

    /// Does what stop() does, which waits for nothing; the loop, which runs on this object, must
    /// have ended.
    ~AbstractPinStateMonitor() override;

    /// Starts the loop; does nothing when it runs already.
    void start();

    /// Asks the loop to pause; wakes nobody. Does nothing unless started.
    void pause();

    /// Undoes pause() and wakes the loop. Does nothing unless started and paused.
    void resume();

    /// Asks the loop to end; neither waits for it nor wakes it when it is paused.
    void stop();

    bool isRunning() { return running; }

    /// True while a pause is asked for or nobody listens. Callers that wait hold the lock.
    bool isPaused() { return paused || pinStateChangeListener == nullptr; }

    /// The listener stays the caller's; null for none.
    void setPinStateChangeListener(PinStateChangeListener* listener) {
        pinStateChangeListener = listener;
    }

    /// What to call, and with what, when the device is lost; null for nothing. Waits for a call
    /// under way, so that its argument may be deleted once this has returned.
    void setDeviceDisconnectionCallback(void (*callback)(void*), void* arg);

    void run() override = 0;

protected:
    AbstractCommandHandler* getCommandHandler() { return commandHandler; }

    /// One look at the pins: compares the inputs with `previousValues`, tells the listener when
    /// some changed, and only then remembers the new values there.
    void checkForInputPinChangesAndBroadcastIfNeeded(DWORD* previousValues);

    /// Calls the device-disconnection callback, if there is one.
    void callDeviceDisconnectionCallback();

private:
    void broadCastInputPinChanges(DWORD changedPins, DWORD currentValues);

    std::atomic<bool> running = false;
    std::atomic<bool> paused;
    std::unique_ptr<concurrent::Thread> myThread;
    AbstractCommandHandler* commandHandler;
    std::atomic<PinStateChangeListener*> pinStateChangeListener = nullptr;

    /// Makes the callback, its argument and the call one step; nothing else is taken inside it but
    /// what the callback takes. Recursive, since a callback may clear itself.
    std::recursive_mutex deviceDisconnectionLock;
    void (*deviceDisconnectionCallback)(void*) = nullptr;
    void* deviceDisconnectionArg = nullptr;
};
