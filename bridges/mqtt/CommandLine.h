#pragma once

#include <optional>

#include "BridgeSettings.h"

namespace mqttbridge {

/// What the command line and the configuration file that it names say. Prints help and version
/// itself, and returns nothing then. Throws UsageError for what cannot be.
std::optional<BridgeSettings> parseCommandLine(int argc, char** argv);

} // namespace mqttbridge
