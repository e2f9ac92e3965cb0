#include "Journal.h"

#include <string_view>
#include <utility>

#include <time.h>
#include <unistd.h>

#include "log/StandardStreams.h"
#include "support/LogLines.h"

namespace {

// Shorter sleeps are pacing within a wait; only longer ones are worth telling and skipping.
constexpr useconds_t LONG_SLEEP_MICROS = 100000;
constexpr long SKIPPED_SLEEP_NANOS = 200000;

void sleepReally(long micros, long nanos) {
    constexpr long PER_SECOND = 1000000;
    constexpr long NANOS_PER_MICRO = 1000;
    timespec duration{micros / PER_SECOND, (micros % PER_SECOND) * NANOS_PER_MICRO + nanos};
    nanosleep(&duration, nullptr);
}

/// The owner and the message of one whole line.
std::string withoutTime(std::string_view line) {
    constexpr std::size_t OWNER = std::string_view("[0000-00-00 00:00:00][").size();
    const auto end = line.find("] ", OWNER);
    if (!support::startsWithTime(line) || end == std::string_view::npos || !line.ends_with('\n')) {
        return "malformed line: " + std::string(line);
    }
    const std::string owner(line.substr(OWNER, end - OWNER));
    return owner + ": " + std::string(line.substr(end + 2, line.size() - end - 3));
}

} // namespace

/// Stands in for the server's own, so that lines fall into place between the library's calls.
void GpioLog::writeWhole(int fileDescriptor, std::string_view text) {
    const char* const stream = fileDescriptor == STDOUT_FILENO   ? "debug "
                               : fileDescriptor == STDERR_FILENO ? "error "
                                                                 : "stray ";
    Journal::instance().add(stream + withoutTime(text));
}

/// Long sleeps are told and not slept; threads that wait in a loop of them still give way.
extern "C" int usleep(useconds_t micros) {
    if (micros < LONG_SLEEP_MICROS) {
        sleepReally(micros, 0);
        return 0;
    }
    Journal::instance().add("sleep " + std::to_string(micros));
    sleepReally(0, SKIPPED_SLEEP_NANOS);
    return 0;
}

Journal& Journal::instance() {
    static Journal* const journal = new Journal;
    return *journal;
}

void Journal::clear() {
    const std::lock_guard<std::mutex> lock(guard_);
    entries_.clear();
}

void Journal::add(std::string step) {
    const std::lock_guard<std::mutex> lock(guard_);
    entries_.push_back(std::move(step));
}

Steps Journal::steps() {
    const std::lock_guard<std::mutex> lock(guard_);
    return entries_;
}

Steps Journal::stepsWith(const std::string& prefix) {
    Steps found;
    for (const std::string& step : steps()) {
        if (step.starts_with(prefix)) {
            found.push_back(step);
        }
    }
    return found;
}

Steps operator+(Steps first, const Steps& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Steps operator+(Steps first, const std::string& step) {
    first.push_back(step);
    return first;
}

Steps repeated(int times, const Steps& steps) {
    Steps all;
    for (int round = 0; round < times; ++round) {
        all = std::move(all) + steps;
    }
    return all;
}
