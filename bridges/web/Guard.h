#pragma once

#include <set>
#include <string>
#include <string_view>

#include "Http.h"

namespace webbridge {

/// Decides who may ask at all: by the name that a browser believes to talk to, by the page that
/// makes it ask, and by the password.
class Guard {
public:
    enum class Credentials { Right, Missing, Wrong };

    /// `hosts` are the names besides loopback's that may stand in Host; `password` is empty when
    /// none is needed.
    Guard(const std::set<std::string>& hosts, std::string password);

    /// By the name of Host alone, in any case of letters; its port need only be one.
    bool allowsHost(const Request& request) const;

    Credentials credentialsOf(const Request& request) const;

    /// Whether the page that sends the request came from here: http or https with Host's name and
    /// port. True when no page is named.
    static bool allowsOrigin(const Request& request);

private:
    std::set<std::string> hosts_; ///< In lower case.
    std::string password_;
};

} // namespace webbridge
