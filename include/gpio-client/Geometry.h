#pragma once

#include <bit>
#include <string>

#include <gpio-client/Types.h>

namespace gpioclient {

/// The pins that a back end has and what they can do.
struct Geometry {
    unsigned pinCount; ///< Pins 0 to pinCount - 1 exist.
    PinMask readable;  ///< Pins whose level the server can tell.
    PinMask writable;
    PinMask inputs;  ///< Pins that are inputs always; none where directions can be changed.
    PinMask outputs; ///< Pins that are outputs always.
    bool canSetDirections;
    bool sendsNotices; ///< Whether the server tells listeners that inputs have changed.

    constexpr PinMask allPins() const noexcept { return (PinMask{1} << pinCount) - 1; }
    constexpr bool has(unsigned pin) const noexcept { return pin < pinCount; }
};

/// Every pin can be read, written and made an input or an output.
inline constexpr Geometry TEST_GEOMETRY{16, 0xffff, 0xffff, 0, 0, true, false};

/// Outputs 0 to 12 and inputs 13 to 28. The server remembers what was last written to outputs 1
/// to 8; the levels of outputs 0 and 9 to 12 cannot be read.
inline constexpr Geometry BOARD_GEOMETRY{29, 0x1fffe1fe, 0x1fff, 0x1fffe000, 0x1fff, false, true};

constexpr const Geometry& geometryOf(BackEnd backEnd) noexcept {
    return backEnd == BackEnd::Board ? BOARD_GEOMETRY : TEST_GEOMETRY;
}

/// The first and the last of `pins`, which has one at least, such as "13 to 28".
inline std::string rangeOf(PinMask pins) {
    return std::to_string(std::countr_zero(pins)) + " to " +
           std::to_string(std::bit_width(pins) - 1);
}

} // namespace gpioclient
