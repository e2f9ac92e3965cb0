#pragma once

#include "BridgeSettings.h"
#include "Timing.h"

namespace mqttbridge {

/// Clears everything that a broker retains of a bridge: availability, states, commands and
/// discovery of both formats. False when the broker cannot be reached in time or something is left.
bool forget(const BridgeSettings& settings, const Timing& timing, int signals);

} // namespace mqttbridge
