#include <algorithm>
#include <array>
#include <bit>
#include <memory>
#include <optional>

#include <gpio-client/PinWatcher.h>

#include "../Command.h"
#include "../LineFormat.h"
#include "../Output.h"
#include "../Panel.h"
#include "../StopSignals.h"
#include "../UntilCancelled.h"

namespace {

using gpioclient::contains;
using gpioclient::Level;
using gpioclient::PinEvent;
using gpioclient::PinMask;
using gpioclient::PinWatcher;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct MonitorOptions {
    std::vector<unsigned> pins;
    std::size_t numEvents = 0;
    std::optional<milliseconds> idleTimeout;
    std::string edges = "both";
    std::string format = "%S %E %o";
    std::optional<milliseconds> poll;
    bool initialState = false;
    bool banner = false;
    bool reconnect = false;
    bool panel = false;
};

PinWatcher::Config watcherConfig(const Settings& settings, const MonitorOptions& options) {
    PinWatcher::Config config = settings.watcherConfig();
    config.pollInterval = options.poll;
    config.reconnect = options.reconnect;
    return config;
}

class Monitor {
public:
    Monitor(const Settings& settings, const MonitorOptions& options)
        : settings_(settings), options_(options), format_(options.format),
          watcher_(prepare(watcherConfig(settings, options))) {
        selectPins();
    }

    void run() {
        if (options_.banner) {
            printBanner();
        }
        if (options_.initialState) {
            printInitialState();
        }
        idleSince_ = steady_clock::now();
        untilCancelled([this] { printChanges(); });
    }

private:
    PinWatcher::Config prepare(PinWatcher::Config config) const {
        config.options.isCancelled = [this] { return isOver(); };
        return config;
    }

    void printChanges() {
        while (!isOver()) {
            for (const PinEvent& event : watcher_.waitForEvents()) {
                if (isWanted(event)) {
                    ++printed_;
                    printEvent(event);
                    idleSince_ = steady_clock::now();
                }
            }
        }
    }

    bool isOver() const { return StopSignals::requested() || isFinished() || isIdle(); }

    bool isIdle() const {
        return options_.idleTimeout && idleSince_ &&
               steady_clock::now() - *idleSince_ >= *options_.idleTimeout;
    }

    void selectPins() {
        for (const unsigned pin : options_.pins) {
            watcher_.client()->checkReadable(pin);
            selected_ |= gpioclient::maskOf(pin);
        }
        if (options_.pins.empty()) {
            selected_ = watcher_.sendsNotices() ? watcher_.inputPins() : watcher_.levels().known;
        }
    }

    bool isFinished() const { return options_.numEvents != 0 && printed_ >= options_.numEvents; }

    bool isWanted(const PinEvent& event) const {
        const bool rising = event.level == Level::High;
        const bool edgeWanted = options_.edges == "both" || (options_.edges == "rising") == rising;
        return edgeWanted && contains(selected_, event.pin) && !isFinished();
    }

    void printEvent(const PinEvent& event) const {
        print(settings_,
              {{"event", event.kind == PinEvent::Kind::Edge ? "edge" : "initial"},
               {"pin", event.pin},
               {"edge", edgeText(event)},
               {"level", event.level == Level::High ? 1 : 0},
               {"seconds", secondsText(event.time)},
               {"time", localTimeText(event.time)}},
              format_.format(event));
    }

    void printInitialState() const {
        const auto now = std::chrono::system_clock::now();
        const gpioclient::Levels levels = watcher_.levels();
        for (unsigned pin = 0; pin < watcher_.geometry().pinCount; ++pin) {
            if (contains(selected_, pin)) {
                printEvent(
                    {PinEvent::Kind::Initial, pin, levels.at(pin).value_or(Level::Low), now});
            }
        }
    }

    void printBanner() const {
        const auto count = std::popcount(selected_);
        const auto poll = watcher_.pollInterval().count();
        const std::string interval = std::to_string(poll) + " ms";
        const std::string backEnd = gpioclient::toString(watcher_.backEnd());
        print(settings_,
              {{"event", "banner"},
               {"backEnd", backEnd},
               {"pins", count},
               {"notices", watcher_.sendsNotices()},
               {"pollMilliseconds", poll}},
              "watching " + std::to_string(count) + (count == 1 ? " pin" : " pins") + " of the " +
                  backEnd + " back end at " + settings_.endpoint().toString() +
                  (watcher_.sendsNotices()
                       ? " by change notices, read again every " + interval
                       : " by reading them every " + interval + ": it sends no change notices"));
    }

    const Settings& settings_;
    const MonitorOptions& options_;
    LineFormat format_;
    std::optional<steady_clock::time_point> idleSince_;
    PinMask selected_ = 0;
    std::size_t printed_ = 0;
    PinWatcher watcher_; ///< Last, since it asks isOver() while it is made.
};

void monitor(const Settings& settings, const MonitorOptions& options) {
    if (options.panel) {
        if (settings.json) {
            throw UsageError("--panel excludes --json");
        }
        runPanel(watcherConfig(settings, options));
    } else {
        Monitor(settings, options).run();
    }
}

void addOptions(CLI::App& app, MonitorOptions& options) {
    const std::array onlyForLines{
        addParsed(app, "PIN", options.pins, parsePin,
                  "Pins to watch; all inputs of the board, or all pins of the test back end, "
                  "when none is given"),
        app.add_option("-n,--num-events", options.numEvents, "Stop after this many changes")
            ->type_name("N")
            ->check(CLI::PositiveNumber),
        addParsed(app, "--idle-timeout", options.idleTimeout, parseDuration,
                  "Stop after this time without a change")
            ->type_name("TIME"),
        app.add_option("--edges", options.edges, "rising, falling or both")
            ->type_name("EDGES")
            ->check(CLI::IsMember({"rising", "falling", "both"})),
        app.add_flag("--initial-state", options.initialState,
                     "Print the level of each pin before the first change"),
        app.add_flag("--banner", options.banner, "Print a line once every change will be seen"),
        app.add_option("--format-line", options.format,
                       "%o pin, %e edge (1 rising, 2 falling, 0 initial state), %E edge in words, "
                       "%v level as digit, %S seconds since 1970, %L local time, %% percent sign")
            ->type_name("FORMAT")};
    addParsed(app, "--poll", options.poll, parseDuration,
              "Time between two readings of all pins (5s with a board; 100ms on the test "
              "back end, which sends no change notices)")
        ->type_name("TIME");
    app.add_flag("--reconnect", options.reconnect,
                 "Go on after the loss of the board or of the server, and report what has "
                 "changed meanwhile");
    CLI::Option* panel =
        app.add_flag("--panel", options.panel, "Show all pins live on the terminal; q ends it");
    for (CLI::Option* other : onlyForLines) {
        panel->excludes(other);
    }
}

} // namespace

void addMonitor(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("monitor", "Print a line for each change of a pin");
    auto options = std::make_shared<MonitorOptions>();
    addOptions(*app, *options);
    app->callback([&settings, options] { monitor(settings, *options); });
}
