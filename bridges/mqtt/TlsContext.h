#pragma once

#include <memory>
#include <string>

#include "BridgeSettings.h"

// NOLINTNEXTLINE(readability-identifier-naming): the library names it so.
using SSL_CTX = struct ssl_ctx_st;

namespace mqttbridge {

/// How to encrypt the connection to a broker and to know that it is the right one.
///
/// The MQTT library is given an address, because it would look up a name on the calling thread, and
/// would compare the certificate with that address. So the comparison with the name that the user
/// gave, and that name in the greeting, are set up here.
class TlsContext {
public:
    /// Reads the files anew, so that renewed certificates are used. Throws std::runtime_error when
    /// one of them cannot be used.
    explicit TlsContext(const BrokerSettings& settings);

    /// Valid as long as this object.
    SSL_CTX* get() const { return context_.get(); }

private:
    struct Free {
        void operator()(SSL_CTX* context) const;
    };

    std::unique_ptr<std::string> serverName_; ///< Referred to by the context.
    std::unique_ptr<SSL_CTX, Free> context_;
};

} // namespace mqttbridge
