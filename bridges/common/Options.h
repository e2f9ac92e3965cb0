#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include <gpio-client/Types.h>

namespace bridge {

/// Adds what all bridges have: --config, --server and --version.
void addCommonOptions(CLI::App& program, std::string& server, const std::string& version);

/// False when help or the version was asked for, and has been printed. Throws UsageError.
bool parse(CLI::App& program, int argc, char** argv);

/// What the values of --pin, N=TEXT each, say of pins; `form` is told where one has no =, and
/// `parseNumber` reads N. Throws UsageError, also for a pin that is named twice.
std::map<unsigned, std::string> splitPinOptions(const std::vector<std::string>& values,
                                                const std::string& form,
                                                unsigned (*parseNumber)(std::string_view));

/// The first line of a file, without the end of line; nothing when there is none to be read.
std::optional<std::string> firstLineOf(const std::string& file);

/// The server that --server names, otherwise GPIO_SERVER, otherwise localhost:5000. Throws
/// UsageError.
gpioclient::Endpoint serverOf(const std::string& given);

} // namespace bridge
