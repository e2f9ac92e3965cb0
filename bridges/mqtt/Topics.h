#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform.h"

namespace mqttbridge {

/// What an incoming topic is about.
struct Incoming {
    enum class Kind {
        Other,
        Bridge,          ///< Availability of this bridge.
        Board,           ///< Availability of the board.
        Set,             ///< A command for `pin`; no pin when the topic names none.
        State,           ///< The level of `pin`; no pin when the topic names none.
        HomeStatus,      ///< Home Assistant has come or gone.
        DeviceConfig,    ///< Discovery of the whole device.
        ComponentConfig, ///< Discovery of `pin` as `platform`.
    };

    Kind kind = Kind::Other;
    std::optional<unsigned> pin;
    Platform platform = Platform::Switch;
};

/// The names of all topics of one bridge, both ways. Any bytes may come in.
class Topics {
public:
    Topics(const std::string& base, const std::string& id, const std::string& discoveryPrefix);

    std::string bridge() const { return root_ + "bridge"; }
    std::string board() const { return root_ + "board"; }
    std::string error() const { return root_ + "error"; }
    std::string state(unsigned pin) const { return root_ + std::to_string(pin) + "/state"; }
    std::string set(unsigned pin) const { return root_ + std::to_string(pin) + "/set"; }

    std::string deviceConfig() const { return prefix_ + "device/" + node_ + "/config"; }
    std::string componentConfig(Platform platform, unsigned pin) const;

    /// "gpio_ID": the device's identifier, and the start of every pin's.
    const std::string& node() const { return node_; }
    std::string uniqueId(unsigned pin) const { return node_ + "_p" + std::to_string(pin); }

    std::string setFilter() const { return root_ + "+/set"; }
    std::string stateFilter() const { return root_ + "+/state"; }
    std::string componentFilter() const { return prefix_ + "+/" + node_ + "/+/config"; }
    /// Where Home Assistant tells that it has started: the usual topic and the prefix's own.
    std::vector<std::string> homeStatus() const;

    Incoming decode(std::string_view topic) const;

private:
    Incoming decodeOwn(std::string_view rest) const;
    Incoming decodeDiscovery(std::string_view rest) const;

    std::string root_;   ///< "BASE/ID/"
    std::string prefix_; ///< "PREFIX/"
    std::string node_;
};

} // namespace mqttbridge
