#include "Platform.h"

#include <algorithm>
#include <array>

namespace mqttbridge {

namespace {

constexpr std::array<std::string_view, 2> SWITCH_CLASSES{"outlet", "switch"};
constexpr std::array<std::string_view, 28> SENSOR_CLASSES{"battery",
                                                          "battery_charging",
                                                          "carbon_monoxide",
                                                          "cold",
                                                          "connectivity",
                                                          "door",
                                                          "garage_door",
                                                          "gas",
                                                          "heat",
                                                          "light",
                                                          "lock",
                                                          "moisture",
                                                          "motion",
                                                          "moving",
                                                          "occupancy",
                                                          "opening",
                                                          "plug",
                                                          "power",
                                                          "presence",
                                                          "problem",
                                                          "running",
                                                          "safety",
                                                          "smoke",
                                                          "sound",
                                                          "tamper",
                                                          "update",
                                                          "vibration",
                                                          "window"};

template <typename Classes> bool contains(const Classes& classes, std::string_view text) {
    return std::find(classes.begin(), classes.end(), text) != classes.end();
}

} // namespace

std::string_view toString(Platform platform) noexcept {
    return platform == Platform::Switch ? "switch" : "binary_sensor";
}

std::optional<Platform> platformFrom(std::string_view text) noexcept {
    for (const Platform platform : {Platform::Switch, Platform::BinarySensor}) {
        if (text == toString(platform)) {
            return platform;
        }
    }
    return std::nullopt;
}

bool isDeviceClass(std::string_view deviceClass) noexcept {
    return contains(SWITCH_CLASSES, deviceClass) || contains(SENSOR_CLASSES, deviceClass);
}

bool hasDeviceClass(Platform platform, std::string_view deviceClass) noexcept {
    return platform == Platform::Switch ? contains(SWITCH_CLASSES, deviceClass)
                                        : contains(SENSOR_CLASSES, deviceClass);
}

} // namespace mqttbridge
