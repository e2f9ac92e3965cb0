#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// A comparison of one value of the board's state, as in "wait pending-reads = 1".
class Condition {
public:
    /// `words` are NAME [=|>=|<=] N; throws std::invalid_argument with the reason.
    explicit Condition(const std::vector<std::string>& words);

    bool holds(const std::map<std::string, std::uint64_t>& values) const;

private:
    std::string name;
    std::string comparison = ">=";
    std::uint64_t wanted;
};
