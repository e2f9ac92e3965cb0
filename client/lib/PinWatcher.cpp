#include <algorithm>
#include <thread>
#include <utility>

#include <gpio-client/PinWatcher.h>

namespace gpioclient {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds POLL_INTERVAL_WITHOUT_NOTICES{100};
constexpr milliseconds POLL_INTERVAL_WITH_NOTICES{5000};

/// Errors to well-formed requests come from a server of another kind.
bool isNotTheProtocol(const Error& error) {
    return error.cause() == Cause::ProtocolViolation || error.cause() == Cause::ServerError;
}

} // namespace

PinWatcher::PinWatcher(Config config)
    : config_(std::move(config)), backEnd_(config_.options.backEnd.value_or(BackEnd::Test)) {
    if (config_.reconnect && config_.startDisconnected) {
        return;
    }
    connect();
    std::vector<PinEvent> none;
    readPins(none);
    wasConnected_ = true;
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
    inputs_ = client_->inputPins();
    backEnd_ = client_->backEnd();
    config_.options.backEnd = backEnd_;
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
    } catch (const Error& error) {
        if (!config_.reconnect || !(error.isConnectionProblem() || isNotTheProtocol(error))) {
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
    if (Clock::now() < nextAttempt_) {
        std::this_thread::sleep_until(std::min(deadline, nextAttempt_));
        return;
    }
    connect();
    readPins(events);
    retryInterval_ = milliseconds{0};
    report("connected to " + config_.endpoint.toString() + (wasConnected_ ? " again" : ""));
    wasConnected_ = true;
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
    for (unsigned pin = 0; pin < geometry().pinCount; ++pin) {
        if (contains(changed, pin)) {
            const Level level = levels.isHigh(pin) ? Level::High : Level::Low;
            events.push_back({PinEvent::Kind::Edge, pin, level, time});
        }
    }
    levels_ = levels;
}

void PinWatcher::lose(const Error& error) {
    client_.reset();
    if (isNotTheProtocol(error)) {
        config_.options.backEnd.reset();
    }
    const bool isFirst = retryInterval_ == milliseconds{0};
    if (isFirst) {
        report(std::string(error.what()) + "; trying to connect" + (wasConnected_ ? " again" : ""));
    }
    retryInterval_ = isFirst ? config_.firstRetryInterval
                             : std::min(2 * retryInterval_, config_.longestRetryInterval);
    nextAttempt_ = Clock::now() + retryInterval_;
}

void PinWatcher::report(const std::string& news) const {
    if (config_.onConnectionNews) {
        config_.onConnectionNews(news);
    }
}

} // namespace gpioclient
