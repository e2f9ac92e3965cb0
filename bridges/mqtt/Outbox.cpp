#include "Outbox.h"

#include <set>
#include <utility>

namespace mqttbridge {

Outbox::Entry& Outbox::entryOf(const std::string& topic) {
    const auto known = retained_.find(topic);
    if (known != retained_.end()) {
        return *known->second;
    }
    entries_.emplace_back();
    retained_[topic] = std::prev(entries_.end());
    return entries_.back();
}

void Outbox::put(Publication publication) {
    Entry& entry = entryOf(publication.topic);
    entry.payloads.clear();
    entry.payloads.push_back(std::move(publication));
}

void Outbox::put(const std::vector<Publication>& publications) {
    std::set<std::string> begun;
    for (const Publication& publication : publications) {
        Entry& entry = entryOf(publication.topic);
        if (begun.insert(publication.topic).second) {
            entry.payloads.clear();
        }
        entry.payloads.push_back(publication);
    }
}

bool Outbox::putError(Publication publication) {
    if (errors_ >= MOST_ERRORS) {
        return false;
    }
    ++errors_;
    entries_.push_back({true, {std::move(publication)}});
    return true;
}

void Outbox::remove(const std::string& topic) {
    const auto known = retained_.find(topic);
    if (known != retained_.end()) {
        entries_.erase(known->second);
        retained_.erase(known);
    }
}

void Outbox::clear() {
    entries_.clear();
    retained_.clear();
    errors_ = 0;
}

void Outbox::popFront() {
    Entry& entry = entries_.front();
    if (entry.payloads.size() > 1) {
        entry.payloads.pop_front();
        return;
    }
    if (!entry.isError) {
        retained_.erase(entry.payloads.front().topic);
    }
    entries_.pop_front();
}

void Outbox::errorAcknowledged() {
    if (errors_ > 0) {
        --errors_;
    }
}

} // namespace mqttbridge
