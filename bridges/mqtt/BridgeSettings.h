#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include <gpio-client/Types.h>

namespace mqttbridge {

/// What the user says of one pin.
struct PinSettings {
    std::string name;
    std::string deviceClass; ///< One of Home Assistant's; empty for none.
};

/// Where the broker is and how to be let in.
struct BrokerSettings {
    std::string host = "localhost";
    std::uint16_t port = 1883;
    std::string username;
    std::string passwordFile;
    std::string caFile; ///< Switches TLS on.
    std::string certFile;
    std::string keyFile;

    bool usesTls() const { return !caFile.empty(); }
    std::string toString() const { return gpioclient::Endpoint{host, port}.toString(); }
};

enum class DiscoveryFormat { Device, Component };

/// Everything that the command line and the configuration file say.
struct BridgeSettings {
    gpioclient::Endpoint server;
    BrokerSettings broker;
    std::string id;
    std::string base = "gpio";
    std::string discoveryPrefix = "homeassistant";
    bool discovers = true;
    DiscoveryFormat format = DiscoveryFormat::Device;
    std::string name;
    std::map<unsigned, PinSettings> pins;
    std::set<unsigned> only; ///< Empty for all pins.
    bool forget = false;
};

} // namespace mqttbridge
