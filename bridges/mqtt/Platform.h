#pragma once

#include <optional>
#include <string_view>

namespace mqttbridge {

/// What a pin is in a home: an output can be switched, an input can only be looked at.
enum class Platform { Switch, BinarySensor };

/// "switch" or "binary_sensor".
std::string_view toString(Platform platform) noexcept;
std::optional<Platform> platformFrom(std::string_view text) noexcept;

/// Whether Home Assistant has this device class for any platform, or for the given one.
bool isDeviceClass(std::string_view deviceClass) noexcept;
bool hasDeviceClass(Platform platform, std::string_view deviceClass) noexcept;

} // namespace mqttbridge
