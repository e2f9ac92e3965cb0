#include "Discovery.h"

#include <nlohmann/json.hpp>

#include "Text.h"

namespace mqttbridge {

namespace {

// In the order in which they are added, which people find easier to read.
using Json = nlohmann::ordered_json;

constexpr std::size_t LARGEST_DOCUMENT = 65'536;

std::string dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string componentKey(unsigned pin) {
    return "p" + std::to_string(pin);
}

Json deviceOf(const BridgeSettings& settings, const Topics& topics, const Offer& offer) {
    Json device{{"ids", Json::array({topics.node()})}, {"name", settings.name}};
    if (!offer.firmware.empty()) {
        device["sw"] = offer.firmware;
    }
    return device;
}

Json originOf() {
    return {{"name", "gpio-mqtt"}, {"sw", GPIO_MQTT_VERSION}};
}

Json availabilityOf(const Topics& topics) {
    return Json::array({Json{{"t", topics.bridge()}}, Json{{"t", topics.board()}}});
}

void describePin(Json& json, const BridgeSettings& settings, const Topics& topics, unsigned pin,
                 Platform platform) {
    const auto named = settings.pins.find(pin);
    json["uniq_id"] = topics.uniqueId(pin);
    json["name"] = named != settings.pins.end() ? named->second.name : "Pin " + std::to_string(pin);
    json["stat_t"] = topics.state(pin);
    if (platform == Platform::Switch) {
        json["cmd_t"] = topics.set(pin);
    }
    if (named != settings.pins.end() && hasDeviceClass(platform, named->second.deviceClass)) {
        json["dev_cla"] = named->second.deviceClass;
    }
}

} // namespace

Discovery::Discovery(const BridgeSettings& settings, const Topics& topics)
    : settings_(settings), topics_(topics) {}

void Discovery::noteRetained(const Incoming& incoming, std::string_view payload) {
    if (payload.empty()) {
        return;
    }
    if (incoming.kind == Incoming::Kind::ComponentConfig) {
        componentsOnBroker_.emplace(incoming.platform, incoming.pin.value());
        return;
    }
    if (incoming.kind != Incoming::Kind::DeviceConfig) {
        return;
    }
    brokerHasDevice_ = true;
    devicePlanned_.clear();
    if (payload.size() > LARGEST_DOCUMENT) {
        return;
    }
    const Json document = Json::parse(payload, nullptr, false);
    const auto components = document.is_object() ? document.find("cmps") : document.end();
    if (components == document.end() || !components->is_object()) {
        return;
    }
    for (const auto& [key, component] : components->items()) {
        const auto pin =
            key.starts_with('p') ? bridge::pinFrom(std::string_view(key).substr(1)) : std::nullopt;
        const auto platform = component.is_object() ? component.find("p") : component.end();
        if (pin && platform != component.end() && platform->is_string()) {
            if (const auto known = platformFrom(platform->get_ref<const std::string&>())) {
                devicePlanned_[*pin] = *known;
            }
        }
    }
}

void Discovery::reset() {
    brokerHasDevice_ = false;
    devicePlanned_.clear();
    componentsOnBroker_.clear();
    current_.clear();
}

std::vector<Publication> Discovery::plan(const Offer& offer, bool lastWaits) {
    std::vector<Publication> messages;
    if (!lastWaits) {
        deviceOnBroker_ = devicePlanned_;
    }
    current_.clear();
    if (!settings_.discovers) {
        clearDevice(messages);
        clearComponents({}, messages);
    } else if (settings_.format == DiscoveryFormat::Device) {
        clearComponents({}, messages);
        planDevice(offer, messages);
    } else {
        clearDevice(messages);
        planComponents(offer, messages);
    }
    return messages;
}

bool Discovery::isCurrent(std::string_view topic, std::string_view payload) const {
    const auto wanted = current_.find(topic);
    return wanted != current_.end() && wanted->second == payload;
}

void Discovery::planDevice(const Offer& offer, std::vector<Publication>& messages) {
    if (offer.pins.empty()) {
        clearDevice(messages);
        return;
    }
    std::map<unsigned, Platform> removed;
    for (const auto& [pin, platform] : deviceOnBroker_) {
        const auto offered = offer.pins.find(pin);
        if (offered == offer.pins.end() || offered->second != platform) {
            removed[pin] = platform;
        }
    }
    if (!removed.empty()) {
        messages.push_back({topics_.deviceConfig(), deviceText(offer, removed)});
    }
    messages.push_back({topics_.deviceConfig(), deviceText(offer, {})});
    current_[topics_.deviceConfig()] = messages.back().payload;
    brokerHasDevice_ = true;
    devicePlanned_ = offer.pins;
}

void Discovery::planComponents(const Offer& offer, std::vector<Publication>& messages) {
    std::set<Component> wanted;
    for (const auto& [pin, platform] : offer.pins) {
        wanted.emplace(platform, pin);
    }
    clearComponents(wanted, messages);
    for (const auto& [platform, pin] : wanted) {
        messages.push_back(
            {topics_.componentConfig(platform, pin), componentText(offer, pin, platform)});
        current_[messages.back().topic] = messages.back().payload;
    }
    componentsOnBroker_ = wanted;
}

void Discovery::clearDevice(std::vector<Publication>& messages) {
    if (brokerHasDevice_) {
        messages.push_back({topics_.deviceConfig(), ""});
    }
    brokerHasDevice_ = false;
    devicePlanned_.clear();
}

void Discovery::clearComponents(const std::set<Component>& wanted,
                                std::vector<Publication>& messages) {
    for (const Component& component : componentsOnBroker_) {
        if (!wanted.contains(component)) {
            messages.push_back({topics_.componentConfig(component.first, component.second), ""});
        }
    }
    componentsOnBroker_.clear();
}

/// A component with nothing but its platform is one that Home Assistant is to remove.
std::string Discovery::deviceText(const Offer& offer,
                                  const std::map<unsigned, Platform>& removed) const {
    Json components = Json::object();
    for (const auto& [pin, platform] : removed) {
        components[componentKey(pin)] = Json{{"p", toString(platform)}};
    }
    for (const auto& [pin, platform] : offer.pins) {
        if (!removed.contains(pin)) {
            Json component{{"p", toString(platform)}};
            describePin(component, settings_, topics_, pin, platform);
            components[componentKey(pin)] = std::move(component);
        }
    }
    return dump(Json{{"dev", deviceOf(settings_, topics_, offer)},
                     {"o", originOf()},
                     {"avty", availabilityOf(topics_)},
                     {"avty_mode", "all"},
                     {"cmps", std::move(components)}});
}

std::string Discovery::componentText(const Offer& offer, unsigned pin, Platform platform) const {
    Json component = Json::object();
    describePin(component, settings_, topics_, pin, platform);
    component["dev"] = deviceOf(settings_, topics_, offer);
    component["o"] = originOf();
    component["avty"] = availabilityOf(topics_);
    component["avty_mode"] = "all";
    return dump(component);
}

} // namespace mqttbridge
