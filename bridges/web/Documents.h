#pragma once

#include <map>
#include <string>

#include "PinTable.h"

namespace webbridge {

/// The texts in which the state of the pins is told, apart from HTTP.
class Documents {
public:
    Documents(std::map<unsigned, std::string> names, bool readOnly);

    /// All pins, as one JSON object.
    std::string pins(const PinTable& table) const;

    /// The events of a stream, each with the empty line that ends it.
    std::string snapshotEvent(const PinTable& table) const;
    static std::string changeEvent(const PinTable& table, unsigned pin);
    static std::string linkEvent(bool connected);

    /// For Prometheus; `requests` counts answers by their status.
    static std::string metrics(const PinTable& table,
                               const std::map<unsigned, std::uint64_t>& requests);

private:
    std::map<unsigned, std::string> names_;
    bool readOnly_;
};

} // namespace webbridge
