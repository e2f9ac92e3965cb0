#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "PinState.h"

namespace mqttbridge {

/// What the link to the server knows at one moment.
struct BoardState : bridge::PinState {
    /// The number of the newest requested reading that this state is at least as new as.
    std::uint64_t reading = 0;

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
