#pragma once

#include <algorithm>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Arguments.h"
#include "Settings.h"

/// A subcommand and what it does once the whole command line has been read.
struct Command {
    CLI::App* app;
    std::function<void()> run;
};

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

Command addInfo(CLI::App& program, const Settings& settings);
Command addGet(CLI::App& program, const Settings& settings);
Command addSet(CLI::App& program, const Settings& settings);
Command addToggle(CLI::App& program, const Settings& settings);
Command addDirection(CLI::App& program, const Settings& settings);
Command addMonitor(CLI::App& program, const Settings& settings);
Command addWait(CLI::App& program, const Settings& settings);
Command addRaw(CLI::App& program, const Settings& settings);
Command addPing(CLI::App& program, const Settings& settings);
