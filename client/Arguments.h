#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gpio-client/Types.h>

/// The command line asks for something that cannot be; exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Assignment {
    unsigned pin = 0;
    gpioclient::Level level = gpioclient::Level::Low;
};

/// Decimal, or hexadecimal with 0x.
unsigned parsePinNumber(std::string_view text);

/// The same. Refuses what no back end has.
unsigned parsePin(std::string_view text);

/// PIN=VALUE with the values 0, 1, low, high, off, on.
Assignment parseAssignment(std::string_view text);

gpioclient::Direction parseDirection(std::string_view text);

/// What the variable GPIO_SERVER names; nothing when it is unset or empty.
std::optional<gpioclient::Endpoint> serverFromEnvironment();

/// Seconds, or a number with the unit ms, s or m; more than zero.
std::chrono::milliseconds parseDuration(std::string_view text);
