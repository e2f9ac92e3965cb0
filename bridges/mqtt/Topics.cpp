#include "Topics.h"

#include <algorithm>

#include "Text.h"

namespace mqttbridge {

namespace {

constexpr std::string_view HOME_STATUS = "homeassistant/status";

/// Takes `end` from the end of the text if it is there.
bool dropSuffix(std::string_view& text, std::string_view end) {
    if (!text.ends_with(end)) {
        return false;
    }
    text.remove_suffix(end.size());
    return true;
}

} // namespace

Topics::Topics(const std::string& base, const std::string& id, const std::string& discoveryPrefix)
    : root_(base + "/" + id + "/"), prefix_(discoveryPrefix + "/"), node_("gpio_" + id) {}

std::string Topics::componentConfig(Platform platform, unsigned pin) const {
    return prefix_ + std::string(toString(platform)) + "/" + node_ + "/p" + std::to_string(pin) +
           "/config";
}

std::vector<std::string> Topics::homeStatus() const {
    std::vector<std::string> topics{std::string(HOME_STATUS)};
    if (prefix_ + "status" != HOME_STATUS) {
        topics.push_back(prefix_ + "status");
    }
    return topics;
}

Incoming Topics::decode(std::string_view topic) const {
    if (topic == HOME_STATUS) {
        return {Incoming::Kind::HomeStatus, {}, {}};
    }
    // A base may begin like the prefix, so what is not the one may still be the other.
    if (topic.starts_with(root_)) {
        const Incoming incoming = decodeOwn(topic.substr(root_.size()));
        if (incoming.kind != Incoming::Kind::Other) {
            return incoming;
        }
    }
    if (topic.starts_with(prefix_)) {
        return decodeDiscovery(topic.substr(prefix_.size()));
    }
    return {};
}

Incoming Topics::decodeOwn(std::string_view rest) const {
    if (rest == "bridge") {
        return {Incoming::Kind::Bridge, {}, {}};
    }
    if (rest == "board") {
        return {Incoming::Kind::Board, {}, {}};
    }
    Incoming::Kind kind = Incoming::Kind::Set;
    if (!dropSuffix(rest, "/set")) {
        kind = Incoming::Kind::State;
        if (!dropSuffix(rest, "/state")) {
            return {};
        }
    }
    if (rest.find('/') != std::string_view::npos) {
        return {};
    }
    return {kind, bridge::pinFrom(rest), {}};
}

Incoming Topics::decodeDiscovery(std::string_view rest) const {
    if (rest == "status") {
        return {Incoming::Kind::HomeStatus, {}, {}};
    }
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos || !dropSuffix(rest, "/config")) {
        return {};
    }
    const std::string_view kind = rest.substr(0, slash);
    const std::string_view object = rest.substr(std::min(slash + 1, rest.size()));
    if (kind == "device" && object == node_) {
        return {Incoming::Kind::DeviceConfig, {}, {}};
    }
    const auto platform = platformFrom(kind);
    const std::string start = node_ + "/p";
    if (!platform || !object.starts_with(start)) {
        return {};
    }
    const auto pin = bridge::pinFrom(object.substr(start.size()));
    return pin ? Incoming{Incoming::Kind::ComponentConfig, pin, *platform} : Incoming{};
}

} // namespace mqttbridge
