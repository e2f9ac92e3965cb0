#include "LineFormat.h"

#include <array>
#include <cstdio>
#include <ctime>

#include "Arguments.h"

namespace {

using gpioclient::PinEvent;
using std::chrono::system_clock;

constexpr std::string_view FIELDS = "oeEvSL%";

std::string nanosecondsText(system_clock::time_point time) {
    const auto sinceSecond = time - std::chrono::floor<std::chrono::seconds>(time);
    const auto nanoseconds =
        std::chrono::duration_cast<std::chrono::nanoseconds>(sinceSecond).count();
    std::string digits = std::to_string(nanoseconds);
    return "." + std::string(9 - digits.size(), '0') + digits;
}

int edgeNumber(const PinEvent& event) {
    if (event.kind == PinEvent::Kind::Initial) {
        return 0;
    }
    return event.level == gpioclient::Level::High ? 1 : 2;
}

std::string field(char name, const PinEvent& event) {
    switch (name) {
    case 'o':
        return std::to_string(event.pin);
    case 'e':
        return std::to_string(edgeNumber(event));
    case 'E':
        return edgeText(event);
    case 'v':
        return event.level == gpioclient::Level::High ? "1" : "0";
    case 'S':
        return secondsText(event.time);
    case 'L':
        return localTimeText(event.time);
    default:
        return "%";
    }
}

} // namespace

std::string secondsText(system_clock::time_point time) {
    return std::to_string(system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time))) +
           nanosecondsText(time);
}

std::string localTimeText(system_clock::time_point time) {
    const std::time_t seconds =
        system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
    std::tm local{};
    localtime_r(&seconds, &local);
    const std::string format = "%Y-%m-%dT%H:%M:%S" + nanosecondsText(time) + "%z";
    std::array<char, 64> text{};
    const std::size_t size = std::strftime(text.data(), text.size(), format.c_str(), &local);
    // The offset is +hhmm.
    return std::string(text.data(), size).insert(size - 2, ":");
}

std::string edgeText(const PinEvent& event) {
    if (event.kind == PinEvent::Kind::Initial) {
        return event.level == gpioclient::Level::High ? "initial-high" : "initial-low";
    }
    return event.level == gpioclient::Level::High ? "rising" : "falling";
}

LineFormat::LineFormat(std::string format) : format_(std::move(format)) {
    for (std::size_t i = 0; i < format_.size(); ++i) {
        if (format_[i] != '%') {
            continue;
        }
        ++i;
        if (i == format_.size() || FIELDS.find(format_[i]) == std::string_view::npos) {
            throw UsageError("the line format \"" + format_ +
                             "\" has an unknown field: use %o, %e, %E, %v, %S, %L and %%");
        }
    }
}

std::string LineFormat::format(const PinEvent& event) const {
    std::string line;
    for (std::size_t i = 0; i < format_.size(); ++i) {
        line += format_[i] == '%' ? field(format_[++i], event) : std::string(1, format_[i]);
    }
    return line;
}
