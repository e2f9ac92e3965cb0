#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <gpio-client/Client.h>

/// What the options before the subcommand say.
struct Settings {
    std::optional<std::string> host;
    std::optional<std::uint16_t> port;
    std::optional<std::string> timeout;
    bool json = false;
    bool numeric = false;
    bool quiet = false;

    /// From --host and --port, and from GPIO_SERVER for what they leave open.
    gpioclient::Endpoint endpoint() const;
    gpioclient::Options clientOptions() const;
    gpioclient::Client connect() const;
};
