#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

/// What the user asked to go wrong.
class Faults {
public:
    /// The operations that can be told to fail.
    static const std::set<std::string>& names() {
        static const std::set<std::string> all{"open",     "claim", "reset", "purge",
                                               "baudrate", "read",  "write"};
        return all;
    }

    void failNext(const std::string& name, unsigned int times) { failures[name] = times; }

    /// Whether this use of `name` has to fail; uses up one failure.
    bool shouldFail(const std::string& name) {
        const auto entry = failures.find(name);
        if (entry == failures.end() || entry->second == 0) {
            return false;
        }
        --entry->second;
        return true;
    }

    bool stallReads = false;
    bool stallWrites = false;

    /// The board is pulled out when the count reaches 0: URBs submitted, bytes that the host wrote,
    /// bytes delivered to the host.
    std::optional<std::uint64_t> urbsLeft;
    std::optional<std::uint64_t> writtenLeft;
    std::optional<std::uint64_t> deliveredLeft;

private:
    std::map<std::string, unsigned int> failures;
};
