#pragma once

#include <cstdint>
#include <map>
#include <string>

/// Counters by name since the board process started; a name never counted reads as 0.
using Statistics = std::map<std::string, std::uint64_t>;
