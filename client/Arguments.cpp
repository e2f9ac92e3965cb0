#include "Arguments.h"

#include <charconv>
#include <cstdlib>

#include <gpio-client/Error.h>
#include <gpio-client/Geometry.h>

namespace {

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

template <typename Number, typename... Base>
bool parseWhole(std::string_view text, Number& number, Base... base) {
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, base...);
    return !text.empty() && result.ec == std::errc() && result.ptr == end;
}

std::optional<double> millisecondsIn(std::string_view unit) {
    if (unit.empty() || unit == "s") {
        return 1000;
    }
    if (unit == "ms") {
        return 1;
    }
    return unit == "m" ? std::optional(60'000) : std::nullopt;
}

} // namespace

unsigned parsePinNumber(std::string_view text) {
    unsigned pin = 0;
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (!(hexadecimal ? parseWhole(text.substr(2), pin, 16) : parseWhole(text, pin, 10))) {
        throw UsageError(quoted(text) + " is not a pin: use a decimal number, or hexadecimal "
                                        "with 0x");
    }
    return pin;
}

unsigned parsePin(std::string_view text) {
    const unsigned pin = parsePinNumber(text);
    if (!gpioclient::BOARD_GEOMETRY.has(pin)) {
        throw UsageError(
            "pin " + std::string(text) + " does not exist: the test back end has pins " +
            gpioclient::rangeOf(gpioclient::TEST_GEOMETRY.allPins()) + ", the board pins " +
            gpioclient::rangeOf(gpioclient::BOARD_GEOMETRY.allPins()));
    }
    return pin;
}

Assignment parseAssignment(std::string_view text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
        throw UsageError(quoted(text) + " is not of the form PIN=VALUE, such as 3=1");
    }
    const unsigned pin = parsePin(text.substr(0, equals));
    const std::string_view value = text.substr(equals + 1);
    if (value == "1" || value == "high" || value == "on") {
        return {pin, gpioclient::Level::High};
    }
    if (value == "0" || value == "low" || value == "off") {
        return {pin, gpioclient::Level::Low};
    }
    throw UsageError(quoted(value) + " is not a level: use 0, 1, low, high, off or on");
}

gpioclient::Direction parseDirection(std::string_view text) {
    if (text == "in" || text == "input") {
        return gpioclient::Direction::Input;
    }
    if (text == "out" || text == "output") {
        return gpioclient::Direction::Output;
    }
    throw UsageError(quoted(text) + " is not a direction: use in or out");
}

std::optional<gpioclient::Endpoint> serverFromEnvironment() {
    const char* variable = std::getenv("GPIO_SERVER");
    if (variable == nullptr || *variable == '\0') {
        return std::nullopt;
    }
    try {
        return gpioclient::Endpoint::parse(variable);
    } catch (const gpioclient::Error& error) {
        throw UsageError("GPIO_SERVER: " + std::string(error.what()));
    }
}

std::chrono::milliseconds parseDuration(std::string_view text) {
    constexpr double LONGEST = 1e9;
    const std::size_t unit = std::min(text.find_first_not_of("0123456789."), text.size());
    double number = 0;
    const auto factor = millisecondsIn(text.substr(unit));
    if (!factor || !parseWhole(text.substr(0, unit), number)) {
        throw UsageError(quoted(text) + " is not a duration: use for example 500ms, 2s, 1.5 or 1m");
    }
    const double milliseconds = number * *factor;
    if (milliseconds < 1 || milliseconds > LONGEST) {
        throw UsageError("the duration " + quoted(text) + " is not between 1 ms and 11 days");
    }
    return std::chrono::milliseconds(static_cast<std::int64_t>(milliseconds));
}
