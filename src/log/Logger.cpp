#include "log/Logger.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <utility>

#include <unistd.h>

#include "log/StandardStreams.h"

namespace GpioLog {

namespace {

constexpr std::size_t messageLimit = 1024;

// One for each thread: a line never carries a time stamp that another thread is writing.
thread_local std::array<char, 1024> gpio_log_time_buffer;

std::string_view formatMessage(std::array<char, messageLimit>& buffer, const char* format,
                               va_list arguments) {
    const int length = std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
    const auto wanted = static_cast<std::size_t>(std::max(length, 0));
    return {buffer.data(), std::min(wanted, buffer.size() - 1)};
}

void writeLine(int stream, std::string_view owner, std::string_view message) {
    std::string line;
    const std::string_view time = Logger::currentTime();
    constexpr std::size_t punctuation = 6;
    line.reserve(time.size() + owner.size() + message.size() + punctuation);
    line.append("[").append(time).append("][").append(owner).append("] ").append(message);
    line.push_back('\n');
    writeWhole(stream, line);
}

} // namespace

Logger::Logger(std::string name) : owner(std::move(name)) {}

void Logger::debug(std::string format, ...) {
    std::array<char, messageLimit> buffer;
    va_list arguments;
    va_start(arguments, format);
    const std::string_view message = formatMessage(buffer, format.c_str(), arguments);
    va_end(arguments);
    writeLine(STDOUT_FILENO, owner, message);
}

void Logger::error(std::string format, ...) {
    std::array<char, messageLimit> buffer;
    va_list arguments;
    va_start(arguments, format);
    const std::string_view message = formatMessage(buffer, format.c_str(), arguments);
    va_end(arguments);
    writeLine(STDERR_FILENO, owner, message);
}

const char* Logger::currentTime() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    constexpr int epochYear = 1900;
    static_cast<void>(std::snprintf(gpio_log_time_buffer.data(), gpio_log_time_buffer.size(),
                                    "%d-%02d-%02d %02d:%02d:%02d", local.tm_year + epochYear,
                                    local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                                    local.tm_sec));
    return gpio_log_time_buffer.data();
}

} // namespace GpioLog
