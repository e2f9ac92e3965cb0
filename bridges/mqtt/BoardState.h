#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <gpio-client/Types.h>

namespace mqttbridge {

/// What the link to the server knows at one moment.
struct BoardState {
    bool online = false;
    /// Of the last connection; nothing before the first.
    std::optional<gpioclient::BackEnd> backEnd;
    unsigned pinCount = 0;
    gpioclient::PinMask inputs = 0;
    gpioclient::Levels levels; ///< Pins whose level is not known are left out of `known`.
    std::string firmware;      ///< Empty when there is none, or the board has not told.
    /// The number of the newest requested reading that this state is at least as new as.
    std::uint64_t reading = 0;

    bool isInput(unsigned pin) const { return ((inputs >> pin) & 1) != 0; }
    bool isKnown(unsigned pin) const { return ((levels.known >> pin) & 1) != 0; }
    bool isHigh(unsigned pin) const { return ((levels.high >> pin) & 1) != 0; }

    friend bool operator==(const BoardState&, const BoardState&) = default;
};

/// What became of a command.
struct CommandResult {
    unsigned pin = 0;
    std::string problem; ///< Empty when the server has acknowledged it.
};

/// One step of what has happened on the link.
struct LinkNews {
    BoardState state;
    std::optional<CommandResult> result;
};

} // namespace mqttbridge
