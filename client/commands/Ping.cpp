#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <numeric>

#include "../Command.h"
#include "../Output.h"
#include "../StopSignals.h"

namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

struct PingOptions {
    std::size_t count = 10;
    std::chrono::milliseconds interval{0};
};

struct Statistics {
    std::vector<double> sortedMicroseconds;
    double seconds = 0;

    std::size_t count() const { return sortedMicroseconds.size(); }
    double perSecond() const { return static_cast<double>(count()) / seconds; }
    double mean() const {
        return std::accumulate(sortedMicroseconds.begin(), sortedMicroseconds.end(), 0.0) /
               static_cast<double>(count());
    }

    /// The smallest time that at least `percent` of the requests did not exceed.
    double percentile(std::size_t percent) const {
        const std::size_t rank = (count() * percent + 99) / 100;
        return sortedMicroseconds[std::max<std::size_t>(rank, 1) - 1];
    }
};

Statistics measure(gpioclient::Client& client, std::size_t count,
                   std::chrono::milliseconds interval) {
    std::vector<double> times;
    times.reserve(std::min<std::size_t>(count, 1'000'000));
    const auto start = steady_clock::now();
    while (times.size() < count) {
        if (!times.empty()) {
            StopSignals::sleepFor(interval);
        }
        if (StopSignals::requested()) {
            break;
        }
        times.push_back(std::chrono::duration<double, std::micro>(client.ping()).count());
    }
    const std::chrono::duration<double> elapsed = steady_clock::now() - start;
    std::sort(times.begin(), times.end());
    return {std::move(times), elapsed.count()};
}

std::string decimal(double value) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.1f", value);
    return text.data();
}

void printStatistics(const Settings& settings, const Statistics& statistics) {
    print(settings,
          {{"requests", statistics.count()},
           {"seconds", statistics.seconds},
           {"requestsPerSecond", statistics.perSecond()},
           {"microseconds",
            {{"min", statistics.percentile(0)},
             {"mean", statistics.mean()},
             {"median", statistics.percentile(50)},
             {"p99", statistics.percentile(99)},
             {"max", statistics.percentile(100)}}}},
          std::to_string(statistics.count()) + " requests answered, " +
              decimal(statistics.perSecond()) + " per second\nround trip in microseconds: min " +
              decimal(statistics.percentile(0)) + ", mean " + decimal(statistics.mean()) +
              ", median " + decimal(statistics.percentile(50)) + ", 99% " +
              decimal(statistics.percentile(99)) + ", max " + decimal(statistics.percentile(100)));
}

void ping(const Settings& settings, const PingOptions& options) {
    gpioclient::Client client = settings.connect();
    const Statistics statistics = measure(client, options.count, options.interval);
    if (statistics.count() > 0) {
        printStatistics(settings, statistics);
    }
}

} // namespace

void addPing(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("ping", "Measure the round trip of requests");
    auto options = std::make_shared<PingOptions>();
    app->add_option("-c,--count", options->count, "Requests to send (10)")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    addParsed(*app, "-i,--interval", options->interval, parseDuration,
              "Pause between two requests (none)")
        ->type_name("TIME");
    app->callback([&settings, options] { ping(settings, *options); });
}
