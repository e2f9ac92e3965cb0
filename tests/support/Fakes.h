#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "AbstractPinStateMonitor.h"
#include "PinStateChangeListener.h"
#include "lang/exception/Exception.h"
#include "support/Eventually.h"
#include "test/TestCommandHandler.h"
#include "test/TestPinStateMonitor.h"

namespace support {

/// The simulated pins behind a device that comes, goes and fails as a test wishes.
class FakeDevice : public TestCommandHandler {
public:
    BOOL isDeviceAvailable() override {
        std::function<BOOL()> ask;
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            ++asked_;
            ask = availability_;
        }
        return ask();
    }

    std::string handleCommand(std::string command) override {
        std::function<void(const std::string&)> before;
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            before = beforeCommand_;
        }
        before(command);
        return TestCommandHandler::handleCommand(command);
    }

    void setAvailability(std::function<BOOL()> answer) {
        const std::lock_guard<std::mutex> guard(mutex_);
        availability_ = std::move(answer);
    }

    void setAvailable(bool available) {
        setAvailability([available] { return available ? 1 : 0; });
    }

    /// Called before each command; may throw.
    void setBeforeCommand(std::function<void(const std::string&)> action) {
        const std::lock_guard<std::mutex> guard(mutex_);
        beforeCommand_ = std::move(action);
    }

    int timesAsked() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return asked_;
    }

private:
    std::mutex mutex_;
    std::function<BOOL()> availability_ = [] { return 1; };
    std::function<void(const std::string&)> beforeCommand_ = [](const std::string&) {};
    int asked_ = 0;
};

/// A monitor that detects only what a test tells it to.
class FakeMonitor : public AbstractPinStateMonitor {
public:
    using AbstractPinStateMonitor::AbstractPinStateMonitor;
    using AbstractPinStateMonitor::callDeviceDisconnectionCallback;
    using AbstractPinStateMonitor::checkForInputPinChangesAndBroadcastIfNeeded;

    /// A thread that was started must have left the object before it goes.
    ~FakeMonitor() override {
        if (isRunning()) {
            eventually([this] { return ran_.load(); });
        }
    }
    FakeMonitor(const FakeMonitor&) = delete;
    FakeMonitor& operator=(const FakeMonitor&) = delete;

    void run() override { ran_ = true; }

private:
    std::atomic<bool> ran_ = false;
};

/// The simulated pins' monitor, which tells when its loop has ended and it can be deleted.
class ObservedMonitor : public TestPinStateMonitor {
public:
    using TestPinStateMonitor::TestPinStateMonitor;
    void run() override {
        TestPinStateMonitor::run();
        ended = true;
    }
    std::atomic<bool> ended = false;
};

/// Keeps the change messages.
class RecordingListener : public PinStateChangeListener {
public:
    void pinStateChanged(std::string message) override {
        const std::lock_guard<std::mutex> guard(mutex_);
        received_.push_back(std::move(message));
    }

    std::vector<std::string> messages() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return received_;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> received_;
};

} // namespace support
