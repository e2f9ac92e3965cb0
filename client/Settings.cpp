#include "Settings.h"

#include "Arguments.h"
#include "Output.h"
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
    if (!(host && port)) {
        endpoint = serverFromEnvironment().value_or(endpoint);
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
        options.connectTimeout = *timeout;
        options.requestTimeout = *timeout;
    }
    return options;
}

gpioclient::Client Settings::connect() const {
    return gpioclient::Client(endpoint(), clientOptions());
}

gpioclient::PinWatcher::Config Settings::watcherConfig() const {
    gpioclient::PinWatcher::Config config;
    config.endpoint = endpoint();
    config.options = clientOptions();
    config.onConnectionNews = [this](const std::string& news) { printNote(*this, news); };
    return config;
}
