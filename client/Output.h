#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Arguments.h"
#include "Settings.h"

/// Writes one line to standard output and flushes it; throws when it cannot be written.
void printLine(std::string_view line);
void printJson(const nlohmann::ordered_json& value);

/// "3=high 4=low", with --numeric "1 0", with --json an array of pins.
void printLevels(const Settings& settings, const std::vector<Assignment>& levels);

/// A line on standard error, not with --quiet.
void printNote(const Settings& settings, std::string_view line);
