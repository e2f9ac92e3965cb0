#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <gpio-client/Client.h>
#include <gpio-client/PinWatcher.h>

/// What the options before the subcommand say.
struct Settings {
    std::optional<std::string> host;
    std::optional<std::uint16_t> port;
    std::optional<std::chrono::milliseconds> timeout;
    bool json = false;
    bool numeric = false;
    bool quiet = false;

    /// From --host and --port, and from GPIO_SERVER for what they leave open.
    gpioclient::Endpoint endpoint() const;
    gpioclient::Options clientOptions() const;
    gpioclient::Client connect() const;

    /// Of a watcher that ends with a stop signal and notes on standard error what it is told.
    gpioclient::PinWatcher::Config watcherConfig() const;
};
