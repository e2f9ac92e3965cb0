#include "PinWatcher.h"

#include <algorithm>
#include <thread>
#include <utility>

using gpioclient::ChangeNotice;
using gpioclient::Level;
using gpioclient::Levels;
using gpioclient::PinMask;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds POLL_INTERVAL_WITHOUT_NOTICES{100};
constexpr milliseconds POLL_INTERVAL_WITH_NOTICES{5000};
constexpr milliseconds FIRST_RETRY_INTERVAL{100};
constexpr milliseconds LONGEST_RETRY_INTERVAL{2000};

} // namespace

PinWatcher::PinWatcher(Config config) : config_(std::move(config)) {
    connect();
    levels_ = client_->readSettledLevels();
    while (client_->takeQueuedChange()) {
    }
}

milliseconds PinWatcher::pollInterval() const {
    return config_.pollInterval.value_or(sendsNotices() ? POLL_INTERVAL_WITH_NOTICES
                                                        : POLL_INTERVAL_WITHOUT_NOTICES);
}

void PinWatcher::connect() {
    client_.emplace(config_.endpoint, config_.options);
    if (client_->sendsNotices()) {
        client_->listen();
    }
    backEnd_ = client_->backEnd();
    pinCount_ = client_->pinCount();
    inputs_ = client_->inputPins();
    droppedNotices_ = 0;
    nextPoll_ = Clock::now() + pollInterval();
}

std::vector<PinEvent> PinWatcher::waitForEvents(milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    std::vector<PinEvent> events;
    try {
        if (client_) {
            follow(deadline, events);
        } else {
            tryToReturn(deadline, events);
        }
    } catch (const gpioclient::Error& error) {
        const bool mayReturn =
            error.isConnectionProblem() || error.cause() == gpioclient::Cause::ProtocolViolation;
        if (!config_.reconnect || !mayReturn) {
            throw;
        }
        lose(error);
    }
    return events;
}

void PinWatcher::follow(Clock::time_point deadline, std::vector<PinEvent>& events) {
    while (events.empty()) {
        const auto now = Clock::now();
        if (now >= nextPoll_ || client_->droppedNotices() != droppedNotices_) {
            readPins(events);
            continue;
        }
        if (now >= deadline) {
            return;
        }
        const auto wait = std::chrono::ceil<milliseconds>(std::min(deadline, nextPoll_) - now);
        if (const auto notice = client_->waitForChange(wait)) {
            applyNotice(*notice, events);
        }
    }
}

void PinWatcher::tryToReturn(Clock::time_point deadline, std::vector<PinEvent>& events) {
    const auto now = Clock::now();
    if (now < nextAttempt_) {
        std::this_thread::sleep_until(std::min(deadline, nextAttempt_));
        return;
    }
    connect();
    retryInterval_ = milliseconds{0};
    report("connected to " + config_.endpoint.toString() + " again");
    readPins(events);
}

void PinWatcher::readPins(std::vector<PinEvent>& events) {
    if (config_.followDirections) {
        inputs_ = client_->inputPins();
    }
    const Levels levels = client_->readSettledLevels();
    while (const auto notice = client_->takeQueuedChange()) {
        applyNotice(*notice, events);
    }
    applyLevels(levels, std::chrono::system_clock::now(), events);
    droppedNotices_ = client_->droppedNotices();
    nextPoll_ = Clock::now() + pollInterval();
}

void PinWatcher::applyNotice(const ChangeNotice& notice, std::vector<PinEvent>& events) {
    Levels levels = levels_;
    levels.high = (levels.high & ~inputs_) | (notice.high & inputs_);
    applyLevels(levels, notice.received, events);
}

void PinWatcher::applyLevels(const Levels& levels, std::chrono::system_clock::time_point time,
                             std::vector<PinEvent>& events) {
    const PinMask changed = (levels.high ^ levels_.high) & levels.known & levels_.known;
    for (unsigned pin = 0; pin < pinCount_; ++pin) {
        if (((changed >> pin) & 1) != 0) {
            const Level level = ((levels.high >> pin) & 1) != 0 ? Level::High : Level::Low;
            events.push_back({PinEvent::Kind::Edge, pin, level, time});
        }
    }
    levels_ = levels;
}

void PinWatcher::lose(const gpioclient::Error& error) {
    const bool wasConnected = retryInterval_ == milliseconds{0};
    client_.reset();
    if (wasConnected) {
        report(std::string(error.what()) + "; trying to connect again");
    }
    retryInterval_ =
        wasConnected ? FIRST_RETRY_INTERVAL : std::min(2 * retryInterval_, LONGEST_RETRY_INTERVAL);
    nextAttempt_ = Clock::now() + retryInterval_;
}

void PinWatcher::report(const std::string& news) const {
    if (config_.onConnectionNews) {
        config_.onConnectionNews(news);
    }
}
