#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

/// What the user asked to go wrong.
struct Faults {
    /// Whether this use of `name` has to fail; uses up one failure.
    bool shouldFail(const std::string& name) {
        std::uint64_t& left = failures.at(name);
        return left != 0 && left-- != 0;
    }

    /// How many uses of each are still to fail.
    std::map<std::string, std::uint64_t> failures{{"claim", 0}, {"purge", 0}};

    bool stallReads = false;
    bool stallWrites = false;

    /// The board is pulled out when the count reaches 0: bytes that the host wrote, bytes delivered
    /// to the host.
    std::optional<std::size_t> writtenLeft;
    std::optional<std::size_t> deliveredLeft;
};
