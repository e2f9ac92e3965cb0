#include "Bridge.h"

#include <algorithm>

#include <nlohmann/json.hpp>
#include <sys/eventfd.h>

#include "FirmwareQuery.h"
#include "Log.h"

namespace mqttbridge {

namespace {

using bridge::log;
using std::chrono::milliseconds;

constexpr int COMMAND_QOS = 1;
/// Without acknowledgement and so without the broker's limits for messages in flight: all retained
/// messages come at once.
constexpr int LEARNING_QOS = 0;
constexpr milliseconds FAREWELL_LIMIT{1000};

} // namespace

Bridge::Bridge(const BridgeSettings& settings, const Timing& timing)
    : settings_(settings), timing_(timing),
      topics_(settings.base, settings.id, settings.discoveryPrefix), discovery_(settings, topics_),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), link_(settings.server, timing, wake_.get()),
      broker_(settings.broker, {"gpio_" + settings.id, Publication{topics_.bridge(), "offline"}},
              timing, wake_.get(),
              {[this] { onConnected(); }, [this] { onLost(); },
               [this](const BrokerMessage& message) { onReceived(message); },
               [this](int id, bool granted) { onAnswered(id, granted); }}),
      random_(std::random_device{}()) {}

void Bridge::run(int signals) {
    while (!stopping_) {
        pollOnce(signals, Clock::time_point::max());
    }
    sayGoodbye(signals);
}

void Bridge::pollOnce(int signals, Clock::time_point limit) {
    auto next = limit;
    for (const auto& timer : {repeatAt_, confirmBy_}) {
        next = timer ? std::min(next, *timer) : next;
    }
    stopping_ = broker_.handleNext(stopping_ ? -1 : signals, next) || stopping_;
    takeNews();
    if (repeatAt_ && Clock::now() >= *repeatAt_) {
        repeatAt_.reset();
        tellEverything();
    }
    if (confirmBy_ && Clock::now() >= *confirmBy_) {
        warnOfUnconfirmed();
    }
    broker_.flush();
}

/// A broker that takes nothing any more still has the will.
void Bridge::sayGoodbye(int signals) {
    link_.stop();
    // Whatever still happens is not told: the farewell is the last word.
    onLost();
    const auto limit = Clock::now() + FAREWELL_LIMIT;
    broker_.outbox().clear();
    if (broker_.isConnected()) {
        broker_.outbox().put({topics_.bridge(), "offline"});
        broker_.flush();
        while (broker_.isConnected() && !broker_.isSettled() && Clock::now() < limit) {
            pollOnce(signals, limit);
        }
    }
    broker_.disconnect();
}

void Bridge::onConnected() {
    phase_ = Phase::Subscribing;
    discovery_.reset();
    statesOnBroker_.clear();
    told_.reset();
    repeatAt_.reset();
    link_.requestReading(++wantedReading_);

    std::vector<std::string> lasting = topics_.homeStatus();
    lasting.push_back(topics_.setFilter());
    lasting.push_back(topics_.bridge());
    const auto first = broker_.subscribe(lasting, COMMAND_QOS);
    const auto second = broker_.subscribe(
        {topics_.stateFilter(), topics_.deviceConfig(), topics_.componentFilter()}, LEARNING_QOS);
    awaitedAnswers_.clear();
    for (const auto& id : {first, second}) {
        if (id) {
            awaitedAnswers_.insert(*id);
        }
    }
}

void Bridge::onLost() {
    phase_ = Phase::Away;
    repeatAt_.reset();
}

/// Brokers answer in order: once the end of a subscription is confirmed, everything retained that
/// it covered has come. Discovery stays subscribed, to see that the broker holds what it was sent.
void Bridge::onAnswered(int messageId, bool granted) {
    if (!granted) {
        log("the broker refuses a subscription: check its access list for the topics " +
            topics_.setFilter() + ", " + topics_.stateFilter() + ", " + topics_.bridge() + ", " +
            topics_.deviceConfig() + ", " + topics_.componentFilter());
    }
    if (awaitedAnswers_.erase(messageId) == 0 || !awaitedAnswers_.empty()) {
        return;
    }
    if (phase_ == Phase::Subscribing) {
        phase_ = Phase::Learning;
        if (const auto id = broker_.unsubscribe(topics_.stateFilter())) {
            awaitedAnswers_.insert(*id);
        }
    } else if (phase_ == Phase::Learning) {
        phase_ = Phase::AwaitingReading;
        tellIfReady();
    }
}

void Bridge::onReceived(const BrokerMessage& message) {
    const Incoming incoming = topics_.decode(message.topic);
    switch (incoming.kind) {
    case Incoming::Kind::Set:
        onCommand(incoming.pin, message);
        break;
    case Incoming::Kind::State:
        if (incoming.pin && !message.payload.empty()) {
            statesOnBroker_.insert(*incoming.pin);
        }
        break;
    case Incoming::Kind::Bridge:
        // The will of an older connection of this bridge may come late.
        if (phase_ == Phase::Telling && message.payload != "online" && !stopping_) {
            broker_.outbox().put({topics_.bridge(), "online"});
        }
        break;
    case Incoming::Kind::HomeStatus:
        onHomeStatus(message);
        break;
    case Incoming::Kind::DeviceConfig:
    case Incoming::Kind::ComponentConfig:
        onOwnDiscovery(incoming, message);
        break;
    case Incoming::Kind::Board:
    case Incoming::Kind::Other:
        break;
    }
}

void Bridge::onHomeStatus(const BrokerMessage& message) {
    if (message.retained || message.payload != "online" || phase_ != Phase::Telling) {
        return;
    }
    const auto longest = timing_.homeStatusDelay.count();
    const auto delay =
        milliseconds(std::uniform_int_distribution<milliseconds::rep>(0, longest)(random_));
    repeatAt_ = Clock::now() + delay;
}

void Bridge::onOwnDiscovery(const Incoming& incoming, const BrokerMessage& message) {
    if (phase_ == Phase::Subscribing || phase_ == Phase::Learning ||
        phase_ == Phase::AwaitingReading) {
        discovery_.noteRetained(incoming, message.payload);
    } else if (phase_ == Phase::Telling && discovery_.isCurrent(message.topic, message.payload)) {
        unconfirmed_.erase(std::string(message.topic));
    }
}

/// Brokers acknowledge also what they drop, being too large or not permitted.
void Bridge::warnOfUnconfirmed() {
    confirmBy_.reset();
    if (unconfirmed_.empty() || phase_ != Phase::Telling) {
        return;
    }
    log("the broker does not give back what it was sent to " + *unconfirmed_.begin() +
        ": check its access list, and if it takes small packets only, use "
        "--discovery-format component");
}

void Bridge::onCommand(std::optional<unsigned> pin, const BrokerMessage& message) {
    if (message.retained) {
        log("ignored a retained command" + (pin ? " for pin " + std::to_string(*pin) : "") +
            ": it would switch again at every start; publish commands without the retain flag");
        return;
    }
    const bool high = message.payload == "ON";
    if (!pin || (state_.connected && !state_.has(*pin))) {
        refuse(pin, "no such pin");
    } else if (!high && message.payload != "OFF") {
        refuse(pin, "not ON or OFF");
    } else if (!settings_.only.empty() && !settings_.only.contains(*pin)) {
        refuse(pin, "not offered by this bridge");
    } else if (!state_.connected) {
        refuse(pin, "the board or its server is away");
    } else if (state_.isInput(*pin)) {
        refuse(pin, "the pin is an input");
    } else if (!link_.submit({*pin, high ? gpioclient::Level::High : gpioclient::Level::Low})) {
        refuse(pin, "too many commands are waiting");
    }
}

void Bridge::refuse(std::optional<unsigned> pin, const std::string& reason) {
    nlohmann::ordered_json error{{"pin", nullptr}, {"reason", reason}};
    if (pin) {
        error["pin"] = *pin;
    }
    log("a command" + (pin ? " for pin " + std::to_string(*pin) : "") +
        " was not carried out: " + reason);
    const auto text = error.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    broker_.outbox().putError({topics_.error(), text, false});
}

void Bridge::takeNews() {
    for (const LinkNews& news : link_.takeNews()) {
        apply(news);
        // Each step by itself while the broker keeps up, so that short pulses are told too.
        broker_.flush();
    }
}

void Bridge::apply(const LinkNews& news) {
    const BoardState before = std::exchange(state_, news.state);
    knowsServer_ = true;
    if (state_.backEnd != before.backEnd) {
        warnOfMissingPins();
    }
    if (news.result && !news.result->problem.empty()) {
        refuse(news.result->pin, news.result->problem);
    }
    if (phase_ == Phase::AwaitingReading) {
        tellIfReady();
    } else if (phase_ == Phase::Telling) {
        tellChanges(before);
        if (news.result && news.result->problem.empty()) {
            tellState(news.result->pin);
        }
    }
}

/// A server that is away is not waited for: the next attempt to reach it may take long.
void Bridge::tellIfReady() {
    const bool isAway = knowsServer_ && !state_.connected;
    if (phase_ == Phase::AwaitingReading && (isAway || state_.reading >= wantedReading_)) {
        phase_ = Phase::Telling;
        tellEverything();
    }
}

void Bridge::tellEverything() {
    Outbox& outbox = broker_.outbox();
    outbox.remove(topics_.board());
    outbox.remove(topics_.bridge());
    if (state_.backEnd) {
        tellDiscovery();
        for (const auto& [pin, platform] : offer().pins) {
            tellState(pin);
        }
    }
    tellBoard();
    outbox.put({topics_.bridge(), "online"});
}

void Bridge::tellChanges(const BoardState& before) {
    if (state_.connected && !before.connected) {
        tellEverything();
        return;
    }
    if (!state_.connected && before.connected) {
        tellBoard();
    }
    if (!state_.backEnd) {
        return;
    }
    if (offer() != told_) {
        tellDiscovery();
    }
    for (const auto& [pin, platform] : offer().pins) {
        const bool turned = state_.isInput(pin) != before.isInput(pin);
        if (turned || state_.isKnown(pin) != before.isKnown(pin) ||
            state_.isHigh(pin) != before.isHigh(pin)) {
            tellState(pin);
        }
    }
}

void Bridge::tellDiscovery() {
    told_ = offer();
    const std::vector<Publication> messages =
        discovery_.plan(*told_, broker_.outbox().contains(topics_.deviceConfig()));
    broker_.outbox().put(messages);
    unconfirmed_.clear();
    for (const Publication& message : messages) {
        if (!message.payload.empty()) {
            unconfirmed_.insert(message.topic);
        }
    }
    confirmBy_ = Clock::now() + timing_.attemptLimit;
    std::erase_if(statesOnBroker_, [this](unsigned pin) {
        if (told_->pins.contains(pin)) {
            return false;
        }
        broker_.outbox().put({topics_.state(pin), ""});
        return true;
    });
}

void Bridge::tellState(unsigned pin) {
    if (isOffered(pin)) {
        statesOnBroker_.insert(pin);
        broker_.outbox().put({topics_.state(pin), stateText(pin)});
    }
}

void Bridge::tellBoard() {
    broker_.outbox().put({topics_.board(), state_.connected ? "online" : "offline"});
}

void Bridge::warnOfMissingPins() const {
    std::map<unsigned, std::string> mentioned;
    for (const auto& [pin, named] : settings_.pins) {
        mentioned[pin] = named.name;
    }
    for (const unsigned pin : settings_.only) {
        mentioned.try_emplace(pin);
    }
    bridge::warnOfMissingPins(state_, mentioned);
}

bool Bridge::isOffered(unsigned pin) const {
    return state_.has(pin) && (settings_.only.empty() || settings_.only.contains(pin));
}

Offer Bridge::offer() const {
    Offer offer;
    if (bridge::FirmwareQuery::isVersion(state_.firmware)) {
        offer.firmware = state_.firmware;
    }
    for (unsigned pin = 0; pin < state_.pinCount(); ++pin) {
        if (isOffered(pin)) {
            offer.pins[pin] = state_.isInput(pin) ? Platform::BinarySensor : Platform::Switch;
        }
    }
    return offer;
}

std::string Bridge::stateText(unsigned pin) const {
    if (!state_.isKnown(pin)) {
        return "None";
    }
    return state_.isHigh(pin) ? "ON" : "OFF";
}

} // namespace mqttbridge
