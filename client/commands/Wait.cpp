#include <algorithm>
#include <memory>
#include <optional>

#include <gpio-client/PinWatcher.h>

#include "../Command.h"
#include "../Output.h"
#include "../StopSignals.h"
#include "../UntilCancelled.h"

namespace {

using gpioclient::contains;
using gpioclient::PinEvent;
using gpioclient::PinWatcher;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct WaitOptions {
    std::string assignment;
    std::optional<milliseconds> timeout;
    std::optional<milliseconds> poll;
};

bool isReachedBy(const std::vector<PinEvent>& events, const Assignment& wanted) {
    return std::any_of(events.begin(), events.end(), [&](const PinEvent& event) {
        return event.pin == wanted.pin && event.level == wanted.level;
    });
}

PinWatcher::Config watcherConfig(const Settings& settings, const WaitOptions& options,
                                 unsigned pin) {
    PinWatcher::Config config = settings.watcherConfig();
    config.pollInterval = options.poll;
    if (!options.poll && !contains(gpioclient::BOARD_GEOMETRY.inputs, pin)) {
        // The board tells nothing about its outputs.
        config.pollInterval = config.firstPollInterval;
    }
    milliseconds& closeTimeout = config.options.closeTimeout;
    closeTimeout = std::min(closeTimeout, options.timeout.value_or(closeTimeout));
    return config;
}

void wait(const Settings& settings, const WaitOptions& options) {
    const Assignment wanted = parseAssignment(options.assignment);
    const auto end =
        options.timeout ? steady_clock::now() + *options.timeout : steady_clock::time_point::max();
    const auto isOver = [end] { return StopSignals::requested() || steady_clock::now() >= end; };
    PinWatcher::Config config = watcherConfig(settings, options, wanted.pin);
    config.options.isCancelled = isOver;
    bool reached = false;
    untilCancelled([&] {
        PinWatcher watcher(std::move(config));
        watcher.client()->checkReadable(wanted.pin);
        reached = watcher.levels().at(wanted.pin) == wanted.level;
        while (!reached && !isOver()) {
            reached = isReachedBy(watcher.waitForEvents(), wanted);
        }
    });
    if (reached && !settings.quiet) {
        printLevels(settings, {wanted});
    }
    if (!reached && !StopSignals::requested()) {
        throw gpioclient::Error(gpioclient::Cause::TimedOut,
                                options.assignment + " was not reached within " +
                                    std::to_string(options.timeout->count()) + " ms");
    }
}

} // namespace

void addWait(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("wait", "Wait until a pin has a level");
    auto options = std::make_shared<WaitOptions>();
    app->add_option("PIN=VALUE", options->assignment, "Pin with the level to wait for")->required();
    addParsed(*app, "--timeout", options->timeout, parseDuration,
              "Give up after this time, with exit status 4; without it wait for ever")
        ->type_name("TIME");
    addParsed(*app, "--poll", options->poll, parseDuration,
              "Time between two readings of all pins (100ms, or 5s for inputs of the board, "
              "which sends change notices)")
        ->type_name("TIME");
    app->callback([&settings, options] { wait(settings, *options); });
}
