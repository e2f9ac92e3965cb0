#include "board/Condition.h"

#include <limits>
#include <stdexcept>

#include "board/Arguments.h"

Condition::Condition(const std::vector<std::string>& words) {
    if (words.size() != 2 && words.size() != 3) {
        throw std::invalid_argument("NAME [=|>=|<=] N expected");
    }
    name = words.front();
    wanted = arguments::number(words.back(), 0, std::numeric_limits<std::uint64_t>::max());
    if (words.size() == 3) {
        comparison = words[1];
    }
    if (comparison != "=" && comparison != ">=" && comparison != "<=") {
        throw std::invalid_argument("unknown comparison: " + comparison);
    }
}

bool Condition::holds(const std::map<std::string, std::uint64_t>& values) const {
    const auto entry = values.find(name);
    const std::uint64_t value = entry == values.end() ? 0 : entry->second;
    if (comparison == "=") {
        return value == wanted;
    }
    return comparison == ">=" ? value >= wanted : value <= wanted;
}
