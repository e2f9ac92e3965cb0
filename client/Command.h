#pragma once

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Arguments.h"
#include "Settings.h"

/// An option whose text `parse` turns into the value, or into each value of a vector; `parse` may
/// throw UsageError.
template <typename Value, typename Parse>
CLI::Option* addParsed(CLI::App& app, const std::string& name, Value& value, Parse parse,
                       const std::string& help) {
    return app.add_option_function<std::string>(
        name, [&value, parse](const std::string& text) { value = parse(text); }, help);
}

template <typename Value, typename Parse>
CLI::Option* addParsed(CLI::App& app, const std::string& name, std::vector<Value>& values,
                       Parse parse, const std::string& help) {
    return app.add_option_function<std::vector<std::string>>(
        name,
        [&values, parse](const std::vector<std::string>& texts) {
            std::transform(texts.begin(), texts.end(), std::back_inserter(values), parse);
        },
        help);
}

// Each adds a subcommand that is carried out once the whole command line has been read.

void addInfo(CLI::App& program, const Settings& settings);
void addGet(CLI::App& program, const Settings& settings);
void addSet(CLI::App& program, const Settings& settings);
void addToggle(CLI::App& program, const Settings& settings);
void addDirection(CLI::App& program, const Settings& settings);
void addMonitor(CLI::App& program, const Settings& settings);
void addWait(CLI::App& program, const Settings& settings);
void addRaw(CLI::App& program, const Settings& settings);
void addPing(CLI::App& program, const Settings& settings);
