#pragma once

#include <string>

#include "Documents.h"
#include "PinTable.h"

namespace webbridge {

/// What a reader of events has not been told yet. Its size does not depend on how much that is:
/// what is told at last is the newest state.
struct News {
    bool linkLost = false;
    bool linkMade = false;
    bool snapshot = false; ///< All pins are to be told.
    gpioclient::PinMask changed = 0;

    /// What has happened between two states.
    static News between(const PinTable& before, const PinTable& after);

    bool any() const { return linkLost || linkMade || snapshot || changed != 0; }

    void add(const News& newer);

    /// The events that tell it, with the levels of the table.
    std::string toEvents(const Documents& documents, const PinTable& table) const;
};

} // namespace webbridge
