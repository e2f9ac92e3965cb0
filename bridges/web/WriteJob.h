#pragma once

#include <cstdint>
#include <optional>

#include <gpio-client/Types.h>

namespace webbridge {

/// What a PUT asks of a pin: a level or a direction.
struct WriteJob {
    std::uint64_t id = 0;
    unsigned pin = 0;
    std::optional<gpioclient::Level> level;
    std::optional<gpioclient::Direction> direction;
};

enum class WriteOutcome {
    Done,
    NoSuchPin,
    IsInput,
    DirectionFixed,
    Away,          ///< Nothing was sent.
    Refused,       ///< The server answered that it could not.
    Unacknowledged ///< It may have been carried out.
};

struct WriteResult {
    std::uint64_t id = 0;
    WriteOutcome outcome = WriteOutcome::Done;
};

} // namespace webbridge
