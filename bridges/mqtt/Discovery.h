#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "BridgeSettings.h"
#include "Publication.h"
#include "Topics.h"

namespace mqttbridge {

/// The pins to offer, and what is known of the board that they are on.
struct Offer {
    std::map<unsigned, Platform> pins;
    std::string firmware; ///< Empty when there is none to tell.

    friend bool operator==(const Offer&, const Offer&) = default;
};

/// Tells Home Assistant which pins there are. Remembers what the broker holds of earlier messages,
/// so that pins which are no longer offered are taken back as the format wants.
class Discovery {
public:
    Discovery(const BridgeSettings& settings, const Topics& topics);

    /// A retained discovery message that the broker holds. Any bytes may come in.
    void noteRetained(const Incoming& incoming, std::string_view payload);

    /// Forgets what the broker holds: a new connection asks again.
    void reset();

    /// The messages that lead from what the broker holds to the offer, in their order. Several of
    /// one topic are all to be sent; `lastWaits` tells whether some of the device's from the last
    /// call have not been. Once they are, the broker counts as holding the offer.
    std::vector<Publication> plan(const Offer& offer, bool lastWaits);

    /// Whether the broker is to hold this message.
    bool isCurrent(std::string_view topic, std::string_view payload) const;

private:
    using Component = std::pair<Platform, unsigned>;

    void planDevice(const Offer& offer, std::vector<Publication>& messages);
    void planComponents(const Offer& offer, std::vector<Publication>& messages);
    void clearDevice(std::vector<Publication>& messages);
    void clearComponents(const std::set<Component>& wanted, std::vector<Publication>& messages);
    std::string deviceText(const Offer& offer, const std::map<unsigned, Platform>& removed) const;
    std::string componentText(const Offer& offer, unsigned pin, Platform platform) const;

    const BridgeSettings& settings_;
    const Topics& topics_;
    bool brokerHasDevice_ = false;
    std::map<unsigned, Platform> deviceOnBroker_; ///< Before the last planned messages.
    std::map<unsigned, Platform> devicePlanned_;
    std::set<Component> componentsOnBroker_;
    std::map<std::string, std::string, std::less<>> current_; ///< Topic to wanted payload.
};

} // namespace mqttbridge
