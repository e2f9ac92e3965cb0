#pragma once

#include <optional>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TemporaryDirectory.h"

/// The firmware on a simulated microcontroller, for the length of a test.
class SimulatedPart {
public:
    /// Whether the environment says BOARD_FIRMWARE=real, for tests of the board to run on it.
    static bool isWanted();

    SimulatedPart();

    /// What makes a virtual board use it.
    std::vector<std::string> boardOptions() const { return {"--firmware-socket", socket()}; }

private:
    std::string socket() const { return directory_.path() + "/line"; }

    support::TemporaryDirectory directory_;
    support::Process process_;
};
