#pragma once

#include <optional>

#include "WebSettings.h"

namespace webbridge {

/// Reads the options, and the configuration file if they name one. Nothing when help or the version
/// was asked for and has been printed. Throws UsageError.
std::optional<WebSettings> parseCommandLine(int argc, char** argv);

} // namespace webbridge
