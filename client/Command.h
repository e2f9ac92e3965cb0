#pragma once

#include <functional>

#include <CLI/CLI.hpp>

#include "Settings.h"

/// A subcommand and what it does once the whole command line has been read.
struct Command {
    CLI::App* app;
    std::function<void()> run;
};

Command addInfo(CLI::App& program, const Settings& settings);
Command addGet(CLI::App& program, const Settings& settings);
Command addSet(CLI::App& program, const Settings& settings);
Command addToggle(CLI::App& program, const Settings& settings);
Command addDirection(CLI::App& program, const Settings& settings);
Command addMonitor(CLI::App& program, const Settings& settings);
Command addWait(CLI::App& program, const Settings& settings);
Command addRaw(CLI::App& program, const Settings& settings);
Command addPing(CLI::App& program, const Settings& settings);
