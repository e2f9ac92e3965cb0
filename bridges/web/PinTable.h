#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include <gpio-client/Geometry.h>
#include <gpio-client/Types.h>

namespace webbridge {

/// The most pins that any back end has.
inline constexpr unsigned MAX_PINS = gpioclient::BOARD_GEOMETRY.pinCount;

/// What is known of the server and its pins at one moment.
struct PinTable {
    std::optional<gpioclient::BackEnd> backEnd; ///< Empty before the first connection.
    std::string firmware;                       ///< Empty where the back end has none.
    bool connected = false;
    gpioclient::Levels levels; ///< The last ones while not connected.
    gpioclient::PinMask inputs = 0;

    /// When each pin's level was last seen to change, in milliseconds since 1970; 0 for never.
    std::array<std::int64_t, MAX_PINS> changedAt{};
    std::uint64_t changes = 0;     ///< Levels seen to change, from one that was known.
    std::uint64_t connections = 0; ///< Connections made; each comes with a new reading.

    unsigned pinCount() const { return backEnd ? gpioclient::geometryOf(*backEnd).pinCount : 0; }
    bool has(unsigned pin) const { return pin < pinCount(); }
    bool isInput(unsigned pin) const { return ((inputs >> pin) & 1) != 0; }
    friend bool operator==(const PinTable&, const PinTable&) = default;

    bool isKnown(unsigned pin) const { return ((levels.known >> pin) & 1) != 0; }
    bool isHigh(unsigned pin) const { return ((levels.high >> pin) & 1) != 0; }
};

} // namespace webbridge
