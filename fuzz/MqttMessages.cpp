// What comes from a broker: any topic and payload. Each topic means one thing, and whatever was
// retained before, what is sent next is well-formed and sent once.

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Check.h"
#include "Discovery.h"
#include "Input.h"
#include "Topics.h"

namespace {

using mqttbridge::BridgeSettings;
using mqttbridge::Discovery;
using mqttbridge::DiscoveryFormat;
using mqttbridge::Incoming;
using mqttbridge::Offer;
using mqttbridge::Platform;
using mqttbridge::Publication;
using mqttbridge::Topics;

void checkMeaning(const Topics& topics, const std::string& topic, const Incoming& incoming) {
    switch (incoming.kind) {
    case Incoming::Kind::Bridge:
        fuzz::expectEqual("bridge", topics.bridge(), topic);
        break;
    case Incoming::Kind::Board:
        fuzz::expectEqual("board", topics.board(), topic);
        break;
    case Incoming::Kind::DeviceConfig:
        fuzz::expectEqual("device", topics.deviceConfig(), topic);
        break;
    case Incoming::Kind::Set:
        if (incoming.pin) {
            fuzz::expectEqual("set", topics.set(*incoming.pin), topic);
        }
        break;
    case Incoming::Kind::State:
        if (incoming.pin) {
            fuzz::expectEqual("state", topics.state(*incoming.pin), topic);
        }
        break;
    case Incoming::Kind::ComponentConfig:
        fuzz::expectTrue("a component without a pin", incoming.pin.has_value());
        fuzz::expectEqual("component", topics.componentConfig(incoming.platform, *incoming.pin),
                          topic);
        break;
    case Incoming::Kind::HomeStatus:
    case Incoming::Kind::Other:
        break;
    }
}

void checkPlan(const Topics& topics, const std::vector<Publication>& messages) {
    for (const Publication& message : messages) {
        const Incoming::Kind kind = topics.decode(message.topic).kind;
        fuzz::expectTrue("discovery on another topic", kind == Incoming::Kind::DeviceConfig ||
                                                           kind == Incoming::Kind::ComponentConfig);
        fuzz::expectTrue("malformed discovery",
                         message.payload.empty() || nlohmann::json::accept(message.payload));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const unsigned char choice = input.byte();
    BridgeSettings settings;
    settings.id = "lab1";
    settings.name = "GPIO lab1";
    settings.discovers = (choice & 1) == 0;
    settings.format = (choice & 2) == 0 ? DiscoveryFormat::Device : DiscoveryFormat::Component;
    settings.base = (choice & 4) == 0 ? "gpio" : "homeassistant/switch";
    const Topics topics(settings.base, settings.id, settings.discoveryPrefix);
    Discovery discovery(settings, topics);

    const std::vector<std::string> pieces = input.pieces();
    for (std::size_t i = 0; i + 1 < pieces.size(); i += 2) {
        const Incoming incoming = topics.decode(pieces[i]);
        checkMeaning(topics, pieces[i], incoming);
        discovery.noteRetained(incoming, pieces[i + 1]);
    }
    const Offer offer{{{3, Platform::Switch}, {13, Platform::BinarySensor}}, "v2.5"};
    checkPlan(topics, discovery.plan(offer, false));
    const std::vector<Publication> again = discovery.plan(offer, false);
    const std::size_t expected = !settings.discovers                          ? 0
                                 : settings.format == DiscoveryFormat::Device ? 1
                                                                              : 2;
    fuzz::expectEqual("messages when nothing has changed", static_cast<long>(expected),
                      static_cast<long>(again.size()));
    return 0;
}
