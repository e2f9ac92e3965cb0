#include "log/Logger.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <utility>

#include <unistd.h>

#include "log/StandardStreams.h"

namespace GpioLog {

namespace {

static_assert(sizeof(std::time_t) == sizeof(std::int64_t), "the log's dates would end in 2038");

constexpr int PREFIX_LIMIT = 1024;
constexpr int MESSAGE_LIMIT = 1024;

// One for each thread: a line never carries a time stamp that another thread is writing.
thread_local std::array<char, 1024> gpio_log_time_buffer;

std::mutex clockMutex;

/// The time that was last asked for, as text. Guarded by clockMutex, as is the C library's zone,
/// which is the whole process's.
struct {
    std::time_t second = -1;
    const char* zone = nullptr;
    std::array<char, 80> text;
} lastTime;

/// Call with clockMutex held.
void updateLastTime(std::time_t second, const char* zone) {
    // The zone of the system may have changed, which localtime_r() does not look for.
    tzset();
    std::tm local{};
    localtime_r(&second, &local);
    std::strftime(lastTime.text.data(), lastTime.text.size(), "%Y-%m-%d %H:%M:%S", &local);
    lastTime.second = second;
    lastTime.zone = zone;
}

/// Builds the whole line in one place, so that nothing is allocated.
void writeLine(int stream, const std::string& owner, const std::string& format, va_list arguments) {
    std::array<char, PREFIX_LIMIT + MESSAGE_LIMIT> line;
    const int prefix =
        std::snprintf(line.data(), PREFIX_LIMIT, "[%s][%s] ", Logger::currentTime(), owner.c_str());
    char* const message = line.data() + std::min(prefix, PREFIX_LIMIT - 1);
    const int wanted = std::vsnprintf(message, MESSAGE_LIMIT, format.c_str(), arguments);
    char* const end = message + std::clamp(wanted, 0, MESSAGE_LIMIT - 1);
    *end = '\n';
    writeWhole(stream, {line.data(), static_cast<std::size_t>(end + 1 - line.data())});
}

} // namespace

Logger::Logger(std::string name) : owner(std::move(name)) {}

void Logger::debug(std::string format, ...) {
    va_list arguments;
    va_start(arguments, format);
    writeLine(STDOUT_FILENO, owner, format, arguments);
    va_end(arguments);
}

void Logger::error(std::string format, ...) {
    va_list arguments;
    va_start(arguments, format);
    writeLine(STDERR_FILENO, owner, format, arguments);
    va_end(arguments);
}

const char* Logger::currentTime() {
    const std::time_t now = std::time(nullptr);
    const char* const zone = std::getenv("TZ");
    const std::lock_guard<std::mutex> guard(clockMutex);
    // Once a second, since looking for another zone costs more than writing the line.
    if (now != lastTime.second || zone != lastTime.zone) {
        updateLastTime(now, zone);
    }
    std::copy(lastTime.text.begin(), lastTime.text.end(), gpio_log_time_buffer.begin());
    return gpio_log_time_buffer.data();
}

} // namespace GpioLog
