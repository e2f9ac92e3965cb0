#pragma once

#include <string>

namespace mqttbridge {

/// One message for the broker. Everything is sent with QoS 1.
struct Publication {
    std::string topic;
    std::string payload;
    bool retained = true;

    friend bool operator==(const Publication&, const Publication&) = default;
};

} // namespace mqttbridge
