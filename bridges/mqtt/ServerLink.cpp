#include "ServerLink.h"

#include <algorithm>
#include <utility>

#include <sys/eventfd.h>

#include "Log.h"

namespace mqttbridge {

namespace {

using bridge::log;
using std::chrono::milliseconds;

constexpr std::size_t MOST_STATES = 32;
constexpr milliseconds CLOSE_TIMEOUT{300};
constexpr milliseconds CHANGE_MISSED_INTERVAL{1000};

gpioclient::PinWatcher::Config configOf(const gpioclient::Endpoint& server, const Timing& timing) {
    gpioclient::PinWatcher::Config config;
    config.endpoint = server;
    config.options.connectTimeout = timing.serverRequest;
    config.options.requestTimeout = timing.serverRequest;
    config.options.closeTimeout = CLOSE_TIMEOUT;
    config.firstPollInterval = CHANGE_MISSED_INTERVAL;
    config.firstRetryInterval = timing.serverFirstPause;
    config.longestRetryInterval = timing.serverLongestPause;
    config.onConnectionNews = [](const std::string& news) { log("server: " + news); };
    return config;
}

} // namespace

ServerLink::ServerLink(const gpioclient::Endpoint& server, const Timing& timing, int newsDescriptor)
    : timing_(timing), newsDescriptor_(newsDescriptor),
      follower_(configOf(server, timing), timing.serverFirstPause, [this] { step(); }) {}

void ServerLink::requestReading(std::uint64_t number) {
    {
        const std::lock_guard lock(mutex_);
        wantedReading_ = number;
    }
    follower_->wake();
}

bool ServerLink::submit(const PinCommand& command) {
    {
        const std::lock_guard lock(mutex_);
        if (openCommands_ >= MOST_COMMANDS) {
            return false;
        }
        ++openCommands_;
        commands_.push_back(command);
    }
    follower_->wake();
    return true;
}

std::vector<LinkNews> ServerLink::takeNews() {
    const std::lock_guard lock(mutex_);
    std::vector<LinkNews> taken{news_.begin(), news_.end()};
    news_.clear();
    openCommands_ -= static_cast<std::size_t>(std::count_if(
        taken.begin(), taken.end(), [](const LinkNews& news) { return news.result.has_value(); }));
    return taken;
}

void ServerLink::step() {
    std::uint64_t wanted = 0;
    {
        const std::lock_guard lock(mutex_);
        wanted = wantedReading_;
    }
    const auto now = Clock::now();
    if (wanted != answeredReading_ || now >= nextReading_) {
        follower_->readSoon();
        nextReading_ = now + timing_.serverPoll;
    }
    const bool wasConnected = follower_->isConnected();
    const bool readsNow = wanted != answeredReading_;
    follower_->waitForEvents(readsNow && wasConnected
                                 ? milliseconds(0)
                                 : std::chrono::ceil<milliseconds>(nextReading_ - now));
    if (follower_->isConnected()) {
        everConnected_ = true;
        if (!wasConnected) {
            firmware_.restart();
        }
        firmware_.askIfDue(*follower_->client());
    }
    answeredReading_ = wanted;
    publish(present(answeredReading_));
    carryOutCommands();
}

void ServerLink::carryOutCommands() {
    while (!follower_.isStopping()) {
        PinCommand command;
        {
            const std::lock_guard lock(mutex_);
            if (commands_.empty()) {
                return;
            }
            command = commands_.front();
            commands_.pop_front();
        }
        const std::string problem = carryOut(command);
        publish(present(answeredReading_), {command.pin, problem});
    }
}

std::string ServerLink::carryOut(const PinCommand& command) {
    if (!follower_->isConnected()) {
        return "the board or its server is away";
    }
    if (gpioclient::contains(follower_->inputPins(), command.pin)) {
        return "the pin is an input";
    }
    try {
        follower_->write(command.pin, command.level);
        return {};
    } catch (const gpioclient::Error& error) {
        return error.what();
    }
}

BoardState ServerLink::present(std::uint64_t reading) const {
    BoardState state;
    state.connected = follower_->isConnected();
    state.reading = reading;
    if (everConnected_) {
        state.backEnd = follower_->backEnd();
        state.inputs = follower_->inputPins();
        state.levels = follower_->levels();
        state.firmware = firmware_.answer();
    }
    return state;
}

void ServerLink::publish(const BoardState& state) {
    if (published_ == state) {
        return;
    }
    published_ = state;
    {
        const std::lock_guard lock(mutex_);
        if (news_.size() >= MOST_STATES && !news_.back().result) {
            news_.pop_back();
        }
        news_.push_back({state, std::nullopt});
    }
    eventfd_write(newsDescriptor_, 1);
}

void ServerLink::publish(const BoardState& state, const CommandResult& result) {
    published_ = state;
    {
        const std::lock_guard lock(mutex_);
        news_.push_back({state, result});
    }
    eventfd_write(newsDescriptor_, 1);
}

} // namespace mqttbridge
