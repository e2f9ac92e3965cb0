#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Arguments.h"
#include "Settings.h"

/// Writes the value with --json, else the text, as one line of standard output and flushes it;
/// throws when it cannot be written.
void print(const Settings& settings, const nlohmann::ordered_json& value, std::string_view text);

/// "3=high 4=low", with --numeric "1 0", with --json an array of pins.
void printLevels(const Settings& settings, const std::vector<Assignment>& levels);

/// "high" or "low", with --numeric "1" or "0".
std::string levelText(const Settings& settings, gpioclient::Level level);

/// A line on standard error, not with --quiet.
void printNote(const Settings& settings, std::string_view line);
