#include "Broker.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>

#include "Log.h"

namespace mqttbridge {

namespace {

using bridge::log;
using std::chrono::milliseconds;

/// Below what the MQTT library itself lets wait for acknowledgement, so that it queues nothing.
constexpr std::size_t MOST_IN_FLIGHT = 16;
constexpr milliseconds LONGEST_WAIT{60'000};
constexpr std::chrono::hours REPORT_AGAIN{1};
/// Smaller messages meet no broker's limit.
constexpr std::size_t LARGE_MESSAGE = 1000;

} // namespace

Broker::Broker(const BrokerSettings& settings, BrokerIdentity identity, const Timing& timing,
               int wakeDescriptor, Handlers handlers)
    : settings_(settings), identity_(std::move(identity)), timing_(timing),
      wakeDescriptor_(wakeDescriptor), handlers_(std::move(handlers)),
      backoff_(timing.firstPause, timing.longestPause), nextAttempt_(Clock::now()) {
    beginLookup();
}

bool Broker::handleNext(int signals, Clock::time_point limit) {
    const auto wait = std::clamp<Clock::duration>(std::min(limit, nextCare()) - Clock::now(),
                                                  milliseconds(0), LONGEST_WAIT);
    std::array<pollfd, 3> entries{{{signals, POLLIN, 0},
                                   {wakeDescriptor_, POLLIN, 0},
                                   {connection_ ? connection_->descriptor() : -1,
                                    connection_ ? connection_->pollEvents() : short{0}, 0}}};
    poll(entries.data(), entries.size(),
         static_cast<int>(std::chrono::ceil<milliseconds>(wait).count()));
    if ((entries[1].revents & POLLIN) != 0) {
        eventfd_t ignored = 0;
        eventfd_read(wakeDescriptor_, &ignored);
    }
    handle(entries[2].revents);
    return (entries[0].revents & POLLIN) != 0;
}

Broker::Clock::time_point Broker::nextCare() const {
    const auto soon = Clock::now() + BrokerConnection::CARE_INTERVAL;
    if (isConnected()) {
        return soon;
    }
    if (connection_) {
        return connection_->hasEnded() ? Clock::now() : std::min(soon, addressDeadline_);
    }
    return addresses_.empty() ? nextAttempt_ : Clock::now();
}

bool Broker::isConnected() const {
    return connection_ && !connection_->hasEnded() && connection_->acceptedAt();
}

void Broker::handle(short pollResult) {
    if (connection_) {
        watchConnection(pollResult);
    } else if (Clock::now() >= nextAttempt_ || (awaitsLookup_ && lookup_->result())) {
        awaitLookup();
    }
}

void Broker::beginLookup() {
    lookup_.emplace(settings_.host, wakeDescriptor_);
    attemptDeadline_ = Clock::now() + timing_.attemptLimit;
}

/// A look-up that takes too long is left running, and the next attempt asks it again: there is
/// never more than one thread that a name server keeps waiting.
void Broker::awaitLookup() {
    if (!lookup_) {
        beginLookup();
    }
    const auto result = lookup_->result();
    if (!result) {
        if (Clock::now() >= attemptDeadline_) {
            attemptFailed("looking up the name " + settings_.host + " takes too long");
            attemptDeadline_ = nextAttempt_ + timing_.attemptLimit;
        } else {
            awaitsLookup_ = true;
            nextAttempt_ = attemptDeadline_;
        }
        return;
    }
    awaitsLookup_ = false;
    lookup_.reset();
    if (result->addresses.empty()) {
        attemptFailed(result->error);
        return;
    }
    addresses_ = result->addresses;
    attemptDeadline_ = Clock::now() + timing_.attemptLimit;
    connectToNextAddress();
}

void Broker::connectToNextAddress() {
    const std::string address = addresses_.front();
    const auto now = Clock::now();
    // One silent address must not use up the time of those after it.
    addressDeadline_ = now + (attemptDeadline_ - now) / static_cast<Clock::rep>(addresses_.size());
    addresses_.erase(addresses_.begin());
    outbox_.clear();
    inFlight_.clear();
    try {
        BrokerEvents& events = *this;
        connection_.emplace(settings_, address, identity_, timing_, events);
    } catch (const std::runtime_error& error) {
        addresses_.clear();
        attemptFailed(error.what());
    }
}

void Broker::watchConnection(short pollResult) {
    connection_->handle(pollResult);
    if (connection_->hasEnded()) {
        connectionEnded();
    } else if (!connection_->acceptedAt() && Clock::now() >= addressDeadline_) {
        connection_.reset();
        if (addresses_.empty()) {
            attemptFailed("no answer within " + std::to_string(timing_.attemptLimit.count()) +
                          " ms");
        } else {
            connectToNextAddress();
        }
    }
}

void Broker::connectionEnded() {
    const std::string reason = connection_->end();
    const auto acceptedAt = connection_->acceptedAt();
    if (!acceptedAt) {
        connection_.reset();
        if (addresses_.empty()) {
            attemptFailed(reason);
        } else {
            connectToNextAddress();
        }
        return;
    }
    lastError_ = reason;
    log("lost the connection to the broker: " + reason);
    hintAtSize();
    if (Clock::now() - *acceptedAt < timing_.shortLife) {
        log("the connection was short: does another bridge use the id of this one? (MQTT client "
            "id " +
            identity_.clientId + ")");
    } else {
        backoff_.reset();
    }
    connection_.reset();
    outbox_.clear();
    inFlight_.clear();
    pause();
    handlers_.lost();
}

void Broker::hintAtSize() const {
    for (const auto& [id, sent] : inFlight_) {
        if (sent.size >= LARGE_MESSAGE) {
            log("a message of " + std::to_string(sent.size) + " bytes to " + sent.topic +
                " was not acknowledged: if the broker takes small packets only, use "
                "--discovery-format component");
            return;
        }
    }
}

void Broker::attemptFailed(const std::string& reason) {
    lastError_ = reason;
    report(reason);
    pause();
}

void Broker::pause() {
    awaitsLookup_ = false;
    nextAttempt_ = Clock::now() + backoff_.next();
}

/// An outage may last for months; the same news once an hour is enough.
void Broker::report(const std::string& reason) {
    const auto now = Clock::now();
    if (reason == reportedError_ && now - reportedAt_ < REPORT_AGAIN) {
        return;
    }
    reportedError_ = reason;
    reportedAt_ = now;
    log("cannot connect to the broker at " + settings_.toString() + ": " + reason +
        "; trying again");
}

void Broker::accepted() {
    log("connected to the broker at " + settings_.toString());
    addresses_.clear();
    lastError_.clear();
    reportedError_.clear();
    handlers_.connected();
}

void Broker::published(int messageId) {
    const auto sent = inFlight_.find(messageId);
    if (sent == inFlight_.end()) {
        return;
    }
    if (sent->second.isError) {
        outbox_.errorAcknowledged();
    }
    inFlight_.erase(sent);
}

void Broker::flush() {
    while (isConnected() && !outbox_.isEmpty() && inFlight_.size() < MOST_IN_FLIGHT &&
           !connection_->isCongested()) {
        const Publication& publication = outbox_.front();
        const auto id = connection_->publish(publication);
        if (!id) {
            connectionEnded();
            return;
        }
        inFlight_[*id] = {publication.topic, publication.payload.size(), !publication.retained};
        outbox_.popFront();
    }
}

std::optional<int> Broker::subscribe(const std::vector<std::string>& filters, int qos) {
    return isConnected() ? connection_->subscribe(filters, qos) : std::nullopt;
}

std::optional<int> Broker::unsubscribe(const std::string& filter) {
    return isConnected() ? connection_->unsubscribe(filter) : std::nullopt;
}

void Broker::disconnect() {
    if (connection_) {
        connection_->disconnect();
        connection_.reset();
    }
    nextAttempt_ = Clock::time_point::max();
}

} // namespace mqttbridge
