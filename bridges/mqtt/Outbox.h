#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "Publication.h"

namespace mqttbridge {

/// What is still to be sent on this connection: of each retained topic the newest only, so that it
/// never grows, and a limited number of errors. Messages leave in the order in which their topics
/// came in.
class Outbox {
public:
    static constexpr std::size_t MOST_ERRORS = 64;

    /// Takes the place of everything that still waits for the topic. Where the place in the order
    /// is to be the last one, remove() first.
    void put(Publication publication);
    void put(const std::vector<Publication>& publications);

    /// A message that is sent once. False when too many wait already.
    bool putError(Publication publication);

    bool contains(const std::string& topic) const { return retained_.contains(topic); }
    void remove(const std::string& topic);
    void clear();

    bool isEmpty() const { return entries_.empty(); }
    const Publication& front() const { return entries_.front().payloads.front(); }

    /// The front has been sent. Errors count until they are acknowledged.
    void popFront();
    void errorAcknowledged();

private:
    struct Entry {
        bool isError = false;
        std::list<Publication> payloads;
    };
    using Entries = std::list<Entry>;

    Entry& entryOf(const std::string& topic);

    Entries entries_;
    std::map<std::string, Entries::iterator> retained_;
    std::size_t errors_ = 0;
};

} // namespace mqttbridge
