#pragma once

#include <optional>

#include <gpio-client/Types.h>

namespace gpioclient {

/// Tells which outputs have a known level, for who follows one server over losses of the
/// connection.
///
/// A server answers what was last written to an output. A board that was unplugged has restarted
/// with its outputs low all the same, while a server that was restarted answers low for a board
/// that has kept its outputs. So after a loss an output is not known until this program has written
/// it, or until the server's answer changes, which shows that somebody has.
class OutputMemory {
public:
    /// After a return: none of these is known.
    void forget(PinMask outputs) noexcept;

    /// The server has acknowledged that this program wrote the level. From now on the pin is known,
    /// and also one that the server cannot read.
    void remember(unsigned pin, Level level) noexcept;

    /// What is known after this answer of the server.
    Levels merge(const Levels& answer) noexcept;

    /// Outputs that the server's answers say nothing about yet.
    PinMask doubted() const noexcept { return doubted_; }

private:
    PinMask doubted_ = 0;
    std::optional<PinMask> firstAnswer_; ///< Since forget().
    Levels written_;
};

} // namespace gpioclient
