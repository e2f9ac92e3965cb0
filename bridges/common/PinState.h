#pragma once

#include <map>
#include <optional>
#include <string>

#include <gpio-client/Geometry.h>
#include <gpio-client/Types.h>

namespace bridge {

/// What is known of a server and its pins at one moment.
struct PinState {
    bool connected = false;
    std::optional<gpioclient::BackEnd> backEnd; ///< Empty before the first connection.
    gpioclient::PinMask inputs = 0;
    gpioclient::Levels levels; ///< The last ones while not connected.
    std::string firmware;      ///< As FirmwareQuery has it; "Unknown" until the board has told.

    unsigned pinCount() const { return backEnd ? gpioclient::geometryOf(*backEnd).pinCount : 0; }
    bool has(unsigned pin) const { return pin < pinCount(); }
    bool isInput(unsigned pin) const { return gpioclient::contains(inputs, pin); }
    bool isKnown(unsigned pin) const { return gpioclient::contains(levels.known, pin); }
    bool isHigh(unsigned pin) const { return levels.isHigh(pin); }

    friend bool operator==(const PinState&, const PinState&) = default;
};

/// Logs which of these pins the server does not have; names may be empty. For when the back end is
/// known, and each time that it changes.
void warnOfMissingPins(const PinState& state, const std::map<unsigned, std::string>& names);

} // namespace bridge
