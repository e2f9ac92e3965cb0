#include "Log.h"

#include <algorithm>
#include <cstddef>
#include <mutex>

#include <poll.h>
#include <unistd.h>

namespace bridge {

namespace {

/// A pipe that is writable takes this much without blocking.
constexpr std::size_t LONGEST_LINE = 1024;

std::mutex mutex;
std::string name;
unsigned long lost = 0;

bool takesMore() {
    pollfd entry{STDERR_FILENO, POLLOUT, 0};
    return poll(&entry, 1, 0) == 1 && (entry.revents & POLLOUT) != 0;
}

bool writeLine(std::string_view text) {
    std::string line = name + ": " + std::string(text.substr(0, LONGEST_LINE - name.size() - 3));
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    line += '\n';
    return takesMore() &&
           write(STDERR_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

} // namespace

void setLogName(const std::string& program) {
    name = program.substr(0, LONGEST_LINE / 4);
}

void log(std::string_view text) {
    const std::lock_guard lock(mutex);
    if (lost > 0 && writeLine("(" + std::to_string(lost) + " lines lost)")) {
        lost = 0;
    }
    if (lost > 0 || !writeLine(text)) {
        ++lost;
    }
}

} // namespace bridge
