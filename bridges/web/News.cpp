#include "News.h"

namespace webbridge {

News News::between(const PinTable& before, const PinTable& after) {
    News news;
    const bool isNewConnection = after.connections != before.connections;
    news.linkLost = before.connected && (isNewConnection || !after.connected);
    news.linkMade = after.connected && (isNewConnection || !before.connected);
    news.snapshot = news.linkMade || before.backEnd != after.backEnd ||
                    before.firmware != after.firmware || before.inputs != after.inputs;
    for (unsigned pin = 0; pin < after.pinCount(); ++pin) {
        if (before.changedAt[pin] != after.changedAt[pin] ||
            before.isKnown(pin) != after.isKnown(pin) || before.isHigh(pin) != after.isHigh(pin)) {
            news.changed |= gpioclient::maskOf(pin);
        }
    }
    return news;
}

void News::add(const News& newer) {
    linkMade = newer.linkMade || (linkMade && !newer.linkLost);
    linkLost = linkLost || newer.linkLost;
    snapshot = snapshot || newer.snapshot;
    changed |= newer.changed;
}

std::string News::toEvents(const Documents& documents, const PinTable& table) const {
    std::string events;
    if (linkLost) {
        events += Documents::linkEvent(false);
    }
    if (linkMade) {
        events += Documents::linkEvent(true);
    }
    if (snapshot) {
        return events + documents.snapshotEvent(table);
    }
    for (unsigned pin = 0; pin < table.pinCount(); ++pin) {
        if (gpioclient::contains(changed, pin)) {
            events += Documents::changeEvent(table, pin);
        }
    }
    return events;
}

} // namespace webbridge
