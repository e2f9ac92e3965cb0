#pragma once

#include <cstdint>
#include <map>
#include <string>

/// Counters by name since the board process started; a name never counted reads as 0.
class Statistics {
public:
    void count(const std::string& name, std::uint64_t amount = 1) { counters[name] += amount; }

    std::uint64_t value(const std::string& name) const {
        const auto entry = counters.find(name);
        return entry == counters.end() ? 0 : entry->second;
    }

    const std::map<std::string, std::uint64_t>& all() const { return counters; }

private:
    std::map<std::string, std::uint64_t> counters;
};
