#include <algorithm>
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

milliseconds PinWatcher::presentPollInterval() const {
    const bool mayMissAChange = sendsNotices() && !wasNotified_ && (levels_.high & inputs_) != 0;
    return mayMissAChange ? std::min(config_.firstPollInterval, pollInterval()) : pollInterval();
}

void PinWatcher::connect() {
    Client client(config_.endpoint, config_.options);
    if (client.sendsNotices()) {
        client.listen();
    }
    inputs_ = client.inputPins();
    backEnd_ = client.backEnd();
    config_.options.backEnd = backEnd_;
    wasNotified_ = false;
    const std::lock_guard lock(mutex_);
    client_ = std::move(client);
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
        if (!mayReturnAfter(error)) {
            throw;
        }
        lose(error);
    }
    const std::lock_guard lock(mutex_);
    isWoken_ = false;
    return events;
}

void PinWatcher::follow(Clock::time_point deadline, std::vector<PinEvent>& events) {
    const PinMask inputs = inputs_;
    while (events.empty() && inputs_ == inputs) {
        const auto now = Clock::now();
        if (now >= nextPoll_ || client_->droppedNotices() != droppedNotices_) {
            readPins(events);
            continue;
        }
        if (now >= deadline || isWoken()) {
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
        pauseUntil(std::min(deadline, nextAttempt_));
        return;
    }
    connect();
    if (wasConnected_) {
        memory_.forget(geometry().outputs);
    }
    readPins(events);
    retryInterval_ = milliseconds{0};
    report("connected to " + config_.endpoint.toString() + (wasConnected_ ? " again" : ""));
    wasConnected_ = true;
}

void PinWatcher::pauseUntil(Clock::time_point end) {
    const auto& isCancelled = config_.options.isCancelled;
    for (auto now = Clock::now(); now < end && !isWoken(); now = Clock::now()) {
        if (isCancelled && isCancelled()) {
            throw Error(Cause::Cancelled, "cancelled");
        }
        std::unique_lock lock(mutex_);
        wakeUp_.wait_until(lock, std::min(end, now + CANCEL_CHECK_INTERVAL),
                           [this] { return isWoken_; });
    }
}

void PinWatcher::wake() noexcept {
    const std::lock_guard lock(mutex_);
    isWoken_ = true;
    wakeUp_.notify_one();
    if (client_) {
        client_->interrupt();
    }
}

bool PinWatcher::isWoken() {
    const std::lock_guard lock(mutex_);
    return isWoken_;
}

void PinWatcher::write(unsigned pin, Level level) {
    request([&](Client& client) { client.writePin(pin, level); });
    memory_.remember(pin, level);
    levels_.set(pin, level);
}

void PinWatcher::setDirection(unsigned pin, Direction direction) {
    request([&](Client& client) { client.setDirection(pin, direction); });
    inputs_ = direction == Direction::Input ? inputs_ | maskOf(pin) : inputs_ & ~maskOf(pin);
}

void PinWatcher::request(const std::function<void(Client&)>& operation) {
    if (!client_) {
        throw Error(Cause::ConnectionLost, "not connected to " + config_.endpoint.toString());
    }
    try {
        operation(*client_);
    } catch (const Error& error) {
        if (!client_->isOpen() && mayReturnAfter(error)) {
            lose(error);
        }
        throw;
    }
}

void PinWatcher::readPins(std::vector<PinEvent>& events) {
    if (config_.followDirections) {
        inputs_ = client_->inputPins();
    }
    const Levels answer = client_->readSettledLevels();
    while (const auto notice = client_->takeQueuedChange()) {
        applyNotice(*notice, events);
    }
    const PinMask doubted = memory_.doubted();
    const Levels levels = memory_.merge(answer);
    applyLevels(levels, std::chrono::system_clock::now(), events, doubted & ~memory_.doubted());
    droppedNotices_ = client_->droppedNotices();
    nextPoll_ = Clock::now() + presentPollInterval();
}

void PinWatcher::applyNotice(const ChangeNotice& notice, std::vector<PinEvent>& events) {
    wasNotified_ = true;
    Levels levels = levels_;
    levels.high = (levels.high & ~inputs_) | (notice.high & inputs_);
    applyLevels(levels, notice.received, events);
}

void PinWatcher::applyLevels(const Levels& levels, std::chrono::system_clock::time_point time,
                             std::vector<PinEvent>& events, PinMask learned) {
    const PinMask changed = ((levels.high ^ levels_.high) & levels_.known) | learned;
    for (unsigned pin = 0; pin < geometry().pinCount; ++pin) {
        if (const auto level = levels.at(pin); level && contains(changed, pin)) {
            events.push_back({PinEvent::Kind::Edge, pin, *level, time});
        }
    }
    levels_ = levels;
}

bool PinWatcher::mayReturnAfter(const Error& error) const {
    return config_.reconnect && (error.isConnectionProblem() || isNotTheProtocol(error));
}

void PinWatcher::lose(const Error& error) {
    std::optional<Client> lost;
    {
        const std::lock_guard lock(mutex_);
        lost.swap(client_);
    }
    lost.reset();
    levels_.known &= ~geometry().outputs;
    levels_.high &= levels_.known;
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
