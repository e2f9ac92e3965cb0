#pragma once

#include <chrono>
#include <functional>
#include <initializer_list>

namespace bridge {

enum ExitStatus { DONE = 0, FAILED = 1, USAGE = 2 };

/// Runs a program and returns its exit status. What it throws is told on standard error, behind
/// its name.
int runProgram(const char* name, const std::function<int()>& run);

/// Shortens the times for tests, by the factor above 0 and up to 1 that the environment variable
/// has; another value, or none, leaves them. None becomes less than a millisecond.
void scaleTimes(const char* variable, std::initializer_list<std::chrono::milliseconds*> times);

} // namespace bridge
