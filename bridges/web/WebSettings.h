#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include <gpio-client/Types.h>

namespace webbridge {

/// Everything that the command line and the configuration file say.
struct WebSettings {
    gpioclient::Endpoint server;
    std::string listenHost; ///< An address, not a name.
    std::uint16_t listenPort = 0;
    std::set<std::string> allowedHosts; ///< Besides the names of loopback.
    std::string password;               ///< Empty when none is needed.
    std::map<unsigned, std::string> names;
    bool readOnly = false;
};

} // namespace webbridge
