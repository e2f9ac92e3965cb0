#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include <gpio-client/PinWatcher.h>

/// The lines of `monitor`, as --format-line describes them:
/// %o pin, %e edge (1 rising, 2 falling, 0 initial state), %E edge in words, %v level as digit,
/// %S seconds since 1970 with nanoseconds, %L local time in ISO 8601, %% a percent sign.
class LineFormat {
public:
    /// Throws UsageError for an unknown field.
    explicit LineFormat(std::string format);

    std::string format(const gpioclient::PinEvent& event) const;

private:
    std::string format_;
};

std::string secondsText(std::chrono::system_clock::time_point time);
std::string localTimeText(std::chrono::system_clock::time_point time);
std::string edgeText(const gpioclient::PinEvent& event);
