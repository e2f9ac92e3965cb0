#include <algorithm>
#include <memory>
#include <optional>

#include <gpio-client/PinWatcher.h>

#include "../Command.h"
#include "../Output.h"
#include "../StopSignals.h"

namespace {

using gpioclient::contains;
using gpioclient::Level;
using gpioclient::PinEvent;
using gpioclient::PinWatcher;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds STOP_CHECK_INTERVAL{100};

struct WaitOptions {
    std::string assignment;
    std::string timeout;
    std::string poll;
};

bool isReached(const PinWatcher& watcher, const Assignment& wanted) {
    return watcher.levels().at(wanted.pin) == wanted.level;
}

bool isReachedBy(const std::vector<PinEvent>& events, const Assignment& wanted) {
    return std::any_of(events.begin(), events.end(), [&](const PinEvent& event) {
        return event.pin == wanted.pin && event.level == wanted.level;
    });
}

/// The time limit of the whole wait, if there is one.
class Limit {
public:
    explicit Limit(const std::string& text) {
        if (!text.empty()) {
            time_ = parseDuration(text);
            end_ = steady_clock::now() + *time_;
        }
    }

    bool isOver() const { return end_ && steady_clock::now() >= *end_; }

    milliseconds cut(milliseconds time) const { return time_ ? std::min(time, *time_) : time; }

    milliseconds untilEnd(milliseconds longest) const {
        if (!end_) {
            return longest;
        }
        const auto left = std::chrono::ceil<milliseconds>(*end_ - steady_clock::now());
        return std::clamp(left, milliseconds::zero(), longest);
    }

private:
    std::optional<milliseconds> time_;
    std::optional<steady_clock::time_point> end_;
};

PinWatcher::Config watcherConfig(const Settings& settings, const WaitOptions& options, unsigned pin,
                                 const Limit& limit) {
    constexpr milliseconds outputPollInterval{100};
    PinWatcher::Config config;
    config.endpoint = settings.endpoint();
    config.options = settings.clientOptions();
    config.options.closeTimeout = limit.cut(config.options.closeTimeout);
    config.options.isCancelled = [&limit] { return StopSignals::requested() || limit.isOver(); };
    if (!options.poll.empty()) {
        config.pollInterval = parseDuration(options.poll);
    } else if (!contains(gpioclient::BOARD_GEOMETRY.inputs, pin)) {
        // The board tells nothing about its outputs.
        config.pollInterval = outputPollInterval;
    }
    return config;
}

/// False when the limit or a signal came first.
bool waitForLevel(PinWatcher& watcher, const Assignment& wanted, const Limit& limit) {
    bool reached = isReached(watcher, wanted);
    while (!reached && !limit.isOver() && !StopSignals::requested()) {
        reached = isReachedBy(watcher.waitForEvents(limit.untilEnd(STOP_CHECK_INTERVAL)), wanted);
    }
    return reached;
}

bool connectAndWait(const Settings& settings, const WaitOptions& options, const Assignment& wanted,
                    const Limit& limit) {
    try {
        PinWatcher watcher(watcherConfig(settings, options, wanted.pin, limit));
        watcher.client()->checkReadable(wanted.pin);
        return waitForLevel(watcher, wanted, limit);
    } catch (const gpioclient::Error& error) {
        if (error.cause() != gpioclient::Cause::Cancelled) {
            throw;
        }
        return false;
    }
}

void wait(const Settings& settings, const WaitOptions& options) {
    const Assignment wanted = parseAssignment(options.assignment);
    const Limit limit(options.timeout);
    const bool reached = connectAndWait(settings, options, wanted, limit);
    if (!reached && !StopSignals::requested()) {
        throw gpioclient::Error(gpioclient::Cause::TimedOut,
                                options.assignment + " was not reached within " + options.timeout);
    }
    if (reached && !settings.quiet) {
        printLevels(settings, {wanted});
    }
}

} // namespace

Command addWait(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("wait", "Wait until a pin has a level");
    auto options = std::make_shared<WaitOptions>();
    app->add_option("PIN=VALUE", options->assignment, "Pin with the level to wait for")->required();
    app->add_option("--timeout", options->timeout,
                    "Give up after this time, with exit status 4; without it wait for ever")
        ->type_name("TIME");
    app->add_option("--poll", options->poll,
                    "Time between two readings of all pins (100ms, or 5s for inputs of the board, "
                    "which sends change notices)")
        ->type_name("TIME");
    return {app, [&settings, options] { wait(settings, *options); }};
}
