#include "Link.h"

#include <algorithm>
#include <utility>

#include "Log.h"

namespace webbridge {

namespace {

using gpioclient::Cause;
using gpioclient::Error;
using std::chrono::milliseconds;

/// Levels that other clients write are found by reading.
constexpr milliseconds POLL_INTERVAL{250};
constexpr milliseconds LONGEST_WAIT{1000};
constexpr milliseconds CLOSE_TIMEOUT{500};

std::int64_t sinceEpoch(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<milliseconds>(time.time_since_epoch()).count();
}

WriteOutcome outcomeOf(const Error& error) {
    switch (error.cause()) {
    case Cause::PinOutOfRange:
        return WriteOutcome::NoSuchPin;
    case Cause::Unsupported:
        return WriteOutcome::IsInput;
    case Cause::ServerError:
    case Cause::RequestFailed:
        return WriteOutcome::Refused;
    default:
        return WriteOutcome::Unacknowledged;
    }
}

gpioclient::PinWatcher::Config configOf(const gpioclient::Endpoint& server) {
    gpioclient::PinWatcher::Config config;
    config.endpoint = server;
    config.options.closeTimeout = CLOSE_TIMEOUT;
    config.pollInterval = POLL_INTERVAL;
    config.onConnectionNews = bridge::log;
    return config;
}

/// Joins two updates without a result between them; the newer state holds all of the older one.
void append(std::vector<Link::Update>& updates, Link::Update update) {
    if (!updates.empty() && !updates.back().result) {
        updates.back() = std::move(update);
    } else {
        updates.push_back(std::move(update));
    }
}

} // namespace

Link::Link(const gpioclient::Endpoint& server, std::function<void()> onUpdate)
    : onUpdate_(std::move(onUpdate)),
      follower_(configOf(server), LONGEST_WAIT, [this] { step(); }) {}

void Link::write(const WriteJob& job) {
    {
        const std::lock_guard lock(mutex_);
        jobs_.push_back(job);
    }
    follower_->wake();
}

bool Link::takeBack(std::uint64_t id) {
    const std::lock_guard lock(mutex_);
    return std::erase_if(jobs_, [id](const WriteJob& job) { return job.id == id; }) != 0;
}

std::vector<Link::Update> Link::takeUpdates() {
    const std::lock_guard lock(mutex_);
    return std::exchange(updates_, {});
}

void Link::step() {
    carryOutWrites();
    renew(follower_->waitForEvents(LONGEST_WAIT));
}

std::optional<WriteJob> Link::nextJob() {
    const std::lock_guard lock(mutex_);
    if (jobs_.empty()) {
        return std::nullopt;
    }
    const WriteJob job = jobs_.front();
    jobs_.pop_front();
    return job;
}

void Link::carryOutWrites() {
    while (const auto job = nextJob()) {
        const WriteOutcome outcome = carryOut(*job);
        renew({});
        publish(WriteResult{job->id, outcome});
    }
}

WriteOutcome Link::carryOut(const WriteJob& job) {
    if (!follower_->isConnected()) {
        return WriteOutcome::Away;
    }
    const auto& geometry = follower_->geometry();
    if (!geometry.has(job.pin)) {
        return WriteOutcome::NoSuchPin;
    }
    try {
        if (job.direction) {
            if (!geometry.canSetDirections) {
                return WriteOutcome::DirectionFixed;
            }
            follower_->setDirection(job.pin, *job.direction);
            return WriteOutcome::Done;
        }
        // Somebody else may have changed the direction since the last reading.
        if (geometry.canSetDirections &&
            follower_->client()->direction(job.pin) == gpioclient::Direction::Input) {
            return WriteOutcome::IsInput;
        }
        follower_->write(job.pin, *job.level);
        return WriteOutcome::Done;
    } catch (const Error& error) {
        return outcomeOf(error);
    }
}

void Link::noteChange(unsigned pin, std::chrono::system_clock::time_point time) {
    table_.changedAt[pin] = sinceEpoch(time);
}

/// A new connection may lead to another back end.
void Link::noteConnection() {
    table_.backEnd = follower_->backEnd();
    ++table_.connections;
    firmware_.restart();
}

void Link::countChanges(const PinTable& before, const std::vector<gpioclient::PinEvent>& events) {
    const auto now = std::chrono::system_clock::now();
    gpioclient::PinMask told = 0;
    for (const gpioclient::PinEvent& event : events) {
        told |= gpioclient::maskOf(event.pin);
        noteChange(event.pin, event.time);
        table_.changes += before.isKnown(event.pin) ? 1U : 0U;
    }
    for (unsigned pin = 0; pin < table_.pinCount(); ++pin) {
        const bool changed =
            table_.isKnown(pin) != before.isKnown(pin) || table_.isHigh(pin) != before.isHigh(pin);
        if (changed && !gpioclient::contains(told, pin)) {
            noteChange(pin, now);
            table_.changes += table_.isKnown(pin) && before.isKnown(pin) ? 1U : 0U;
        }
    }
}

void Link::renew(const std::vector<gpioclient::PinEvent>& events) {
    const PinTable before = table_;
    table_.connected = follower_->isConnected();
    if (table_.connected && !before.connected) {
        noteConnection();
    }
    table_.levels = follower_->levels();
    table_.inputs = follower_->inputPins();
    countChanges(before, events);
    if (table_.connected) {
        firmware_.askIfDue(*follower_->client());
    }
    table_.firmware = firmware_.answer();
    if (table_ != before) {
        publish(std::nullopt);
    }
}

void Link::publish(std::optional<WriteResult> result) {
    bool wasEmpty = false;
    {
        const std::lock_guard lock(mutex_);
        wasEmpty = updates_.empty();
        append(updates_, {table_, result});
    }
    if (wasEmpty) {
        onUpdate_();
    }
}

} // namespace webbridge
