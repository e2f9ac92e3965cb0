#include "Forget.h"

#include <string>
#include <vector>

#include <sys/eventfd.h>

#include "Broker.h"
#include "Descriptor.h"
#include "Log.h"
#include "Topics.h"

namespace mqttbridge {

namespace {

using Clock = std::chrono::steady_clock;
using bridge::log;

/// Each round asks for what is retained, and ends the search when there was nothing.
constexpr int MOST_ROUNDS = 10;
constexpr int QOS = 0;

class Forgetting {
public:
    Forgetting(const BridgeSettings& settings, const Timing& timing)
        : timing_(timing), topics_(settings.base, settings.id, settings.discoveryPrefix),
          wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          broker_(settings.broker, {"gpio_" + settings.id + "_forget", std::nullopt}, timing,
                  wake_.get(),
                  {[this] { beginRound(); }, [this] { awaited_.reset(); },
                   [this](const BrokerMessage& message) { onReceived(message); },
                   [this](int id, bool granted) { onAnswered(id, granted); }}) {}

    bool run(int signals) {
        const auto limit = Clock::now() + timing_.attemptLimit;
        while (!isDone() && rounds_ < MOST_ROUNDS) {
            if (Clock::now() >= limit) {
                log("the broker was not reached in time" +
                    (broker_.lastError().empty() ? "" : ": " + broker_.lastError()));
                return false;
            }
            if (!pollOnce(signals, limit)) {
                return false;
            }
        }
        broker_.disconnect();
        if (!isDone()) {
            log("something is retained again and again: is a bridge with this id running?");
        }
        return isDone();
    }

private:
    bool isDone() const { return roundEnded_ && !foundSome_ && broker_.isSettled(); }

    bool pollOnce(int signals, Clock::time_point limit) {
        if (broker_.handleNext(signals, limit)) {
            return false;
        }
        broker_.flush();
        if (roundEnded_ && foundSome_ && broker_.isConnected() && broker_.isSettled()) {
            beginRound();
        }
        return true;
    }

    std::vector<std::string> filters() const {
        return {topics_.bridge(),    topics_.board(),        topics_.stateFilter(),
                topics_.setFilter(), topics_.deviceConfig(), topics_.componentFilter()};
    }

    void beginRound() {
        ++rounds_;
        roundEnded_ = false;
        foundSome_ = false;
        unsubscribing_ = 0;
        awaited_ = broker_.subscribe(filters(), QOS);
    }

    void onAnswered(int id, bool granted) {
        if (!granted) {
            log("the broker refuses a subscription: check its access list");
        }
        if (awaited_ != id) {
            return;
        }
        const auto all = filters();
        if (unsubscribing_ < all.size()) {
            awaited_ = broker_.unsubscribe(all[unsubscribing_++]);
        } else {
            roundEnded_ = true;
        }
    }

    void onReceived(const BrokerMessage& message) {
        // A command that somebody has just published is none of the retained ones.
        if (message.retained && topics_.decode(message.topic).kind != Incoming::Kind::Other) {
            foundSome_ = true;
            broker_.outbox().put({std::string(message.topic), ""});
        }
    }

    Timing timing_;
    Topics topics_;
    Descriptor wake_;
    Broker broker_;
    std::optional<int> awaited_;
    std::size_t unsubscribing_ = 0;
    int rounds_ = 0;
    bool roundEnded_ = false;
    bool foundSome_ = false;
};

} // namespace

bool forget(const BridgeSettings& settings, const Timing& timing, int signals) {
    return Forgetting(settings, timing).run(signals);
}

} // namespace mqttbridge
