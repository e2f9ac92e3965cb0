#include "Settings.h"

#include <cstdlib>

#include "Arguments.h"
#include "StopSignals.h"

namespace {

/// IPv6 addresses have brackets in GPIO_SERVER, so they may have them here too.
std::string withoutBrackets(const std::string& host) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return bracketed ? host.substr(1, host.size() - 2) : host;
}

} // namespace

gpioclient::Endpoint Settings::endpoint() const {
    gpioclient::Endpoint endpoint;
    const char* variable = std::getenv("GPIO_SERVER");
    if (variable != nullptr && *variable != '\0' && !(host && port)) {
        try {
            endpoint = gpioclient::Endpoint::parse(variable);
        } catch (const gpioclient::Error& error) {
            throw UsageError("GPIO_SERVER: " + std::string(error.what()));
        }
    }
    endpoint.host = host ? withoutBrackets(*host) : endpoint.host;
    endpoint.port = port.value_or(endpoint.port);
    if (endpoint.port == 0) {
        throw UsageError("which server? Give --port=PORT (and --host=HOST), or set "
                         "GPIO_SERVER=host:port");
    }
    return endpoint;
}

gpioclient::Options Settings::clientOptions() const {
    gpioclient::Options options;
    options.isCancelled = StopSignals::requested;
    if (timeout) {
        options.connectTimeout = parseDuration(*timeout);
        options.requestTimeout = options.connectTimeout;
    }
    return options;
}

gpioclient::Client Settings::connect() const {
    return gpioclient::Client(endpoint(), clientOptions());
}
