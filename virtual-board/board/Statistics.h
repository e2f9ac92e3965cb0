#pragma once

#include <cstdint>
#include <map>
#include <string>

/// Counters since the board process started, and states, by name; a name never counted reads as 0.
using Statistics = std::map<std::string, std::uint64_t>;
