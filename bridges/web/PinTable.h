#pragma once

#include <array>
#include <cstdint>

#include "PinState.h"

namespace webbridge {

/// The most pins that any back end has.
inline constexpr unsigned MAX_PINS = gpioclient::BOARD_GEOMETRY.pinCount;

/// What is known of the server and its pins at one moment.
struct PinTable : bridge::PinState {
    /// When each pin's level was last seen to change, in milliseconds since 1970; 0 for never.
    std::array<std::int64_t, MAX_PINS> changedAt{};
    std::uint64_t changes = 0;     ///< Levels seen to change, from one that was known.
    std::uint64_t connections = 0; ///< Connections made; each comes with a new reading.

    friend bool operator==(const PinTable&, const PinTable&) = default;
};

} // namespace webbridge
