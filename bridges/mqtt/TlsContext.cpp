#include "TlsContext.h"

#include <stdexcept>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include "Host.h"

namespace mqttbridge {

namespace {

[[noreturn]] void fail(const std::string& what) {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    const char* reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
    throw std::runtime_error(what + (reason != nullptr ? std::string(": ") + reason : ""));
}

/// The name that tells a shared address which of its servers is meant. The MQTT library has set
/// the address as that name, which is none.
void greetByName(const SSL* connection, int where, int /*result*/) {
    if ((where & SSL_CB_HANDSHAKE_START) == 0) {
        return;
    }
    const auto* name =
        static_cast<const std::string*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
    // OpenSSL hands out the connection as constant although such settings are made here.
    auto* changeable =
        const_cast<SSL*>(connection); // NOLINT(cppcoreguidelines-pro-type-const-cast)
    std::string sent = *name;
    SSL_set_tlsext_host_name(changeable, sent.empty() ? nullptr : sent.data());
}

} // namespace

void TlsContext::Free::operator()(SSL_CTX* context) const {
    SSL_CTX_free(context);
}

TlsContext::TlsContext(const BrokerSettings& settings)
    : serverName_(
          std::make_unique<std::string>(bridge::isAddress(settings.host) ? "" : settings.host)),
      context_(SSL_CTX_new(TLS_client_method())) {
    SSL_CTX* context = context_.get();
    if (context == nullptr || SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) != 1) {
        fail("cannot set up TLS");
    }
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (SSL_CTX_load_verify_file(context, settings.caFile.c_str()) != 1) {
        fail("cannot use the CA certificates in " + settings.caFile);
    }
    if (!settings.certFile.empty() &&
        SSL_CTX_use_certificate_chain_file(context, settings.certFile.c_str()) != 1) {
        fail("cannot use the certificate in " + settings.certFile);
    }
    if (!settings.keyFile.empty() &&
        SSL_CTX_use_PrivateKey_file(context, settings.keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        fail("cannot use the key in " + settings.keyFile);
    }
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    X509_VERIFY_PARAM* parameters = SSL_CTX_get0_param(context);
    const int set = serverName_->empty()
                        ? X509_VERIFY_PARAM_set1_ip_asc(parameters, settings.host.c_str())
                        : X509_VERIFY_PARAM_set1_host(parameters, settings.host.c_str(), 0);
    if (set != 1) {
        fail("cannot compare certificates with the name " + settings.host);
    }
    SSL_CTX_set_app_data(context, serverName_.get());
    SSL_CTX_set_info_callback(context, greetByName);
}

} // namespace mqttbridge
