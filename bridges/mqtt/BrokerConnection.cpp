#include "BrokerConnection.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>

#include <linux/tcp.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "Options.h"

namespace mqttbridge {

namespace {

constexpr int QOS = 1;

struct Traffic {
    unsigned sent = 0;
    unsigned received = 0;
};

std::optional<Traffic> trafficOf(int descriptor) {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
        return std::nullopt;
    }
    return Traffic{info.tcpi_data_segs_out, info.tcpi_data_segs_in};
}

int socketError(int descriptor) {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

/// A broker with Nagle's delay holds the next command back until this one is acknowledged. The
/// system forgets the option now and then.
void acknowledgeAtOnce(int descriptor) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

std::string_view payloadOf(const mosquitto_message& message) {
    if (message.payloadlen <= 0) {
        return {};
    }
    return {static_cast<const char*>(message.payload),
            static_cast<std::size_t>(message.payloadlen)};
}

struct Library {
    Library() { mosquitto_lib_init(); }
    ~Library() { mosquitto_lib_cleanup(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

} // namespace

void BrokerConnection::Free::operator()(mosquitto* handle) const {
    mosquitto_destroy(handle);
}

BrokerConnection::BrokerConnection(const BrokerSettings& settings, const std::string& address,
                                   const BrokerIdentity& identity, const Timing& timing,
                                   BrokerEvents& events)
    : timing_(timing), events_(events), lastCare_(Clock::now()) {
    static const Library library;
    handle_.reset(mosquitto_new(identity.clientId.c_str(), true, this));
    if (handle_ == nullptr) {
        throw std::bad_alloc();
    }
    configure(settings, identity);
    setCallbacks();
    const auto keepAlive = std::chrono::duration_cast<std::chrono::seconds>(timing.keepAlive);
    const int result = mosquitto_connect_async(handle_.get(), address.c_str(), settings.port,
                                               static_cast<int>(keepAlive.count()));
    check(result);
}

BrokerConnection::~BrokerConnection() = default;

void BrokerConnection::configure(const BrokerSettings& settings, const BrokerIdentity& identity) {
    mosquitto* handle = handle_.get();
    mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1);
    if (settings.usesTls()) {
        tls_.emplace(settings);
        mosquitto_int_option(handle, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
        mosquitto_void_option(handle, MOSQ_OPT_SSL_CTX, tls_->get());
    }
    if (!settings.username.empty()) {
        std::optional<std::string> password;
        if (!settings.passwordFile.empty()) {
            password = bridge::firstLineOf(settings.passwordFile);
            if (!password) {
                throw std::runtime_error("cannot read the password from " + settings.passwordFile);
            }
        }
        mosquitto_username_pw_set(handle, settings.username.c_str(),
                                  password ? password->c_str() : nullptr);
    }
    if (identity.will) {
        const Publication& will = *identity.will;
        mosquitto_will_set(handle, will.topic.c_str(), static_cast<int>(will.payload.size()),
                           will.payload.data(), QOS, will.retained);
    }
}

/// The library calls back from within handle(), or from the constructor, on this thread.
void BrokerConnection::setCallbacks() {
    mosquitto* handle = handle_.get();
    mosquitto_connect_callback_set(handle, [](mosquitto*, void* self, int code) {
        static_cast<BrokerConnection*>(self)->onConnect(code);
    });
    mosquitto_message_callback_set(handle, [](mosquitto*, void* self, const mosquitto_message* m) {
        static_cast<BrokerConnection*>(self)->events_.received(
            {m->topic, payloadOf(*m), m->retain});
    });
    mosquitto_publish_callback_set(handle, [](mosquitto*, void* self, int id) {
        static_cast<BrokerConnection*>(self)->events_.published(id);
    });
    mosquitto_subscribe_callback_set(
        handle, [](mosquitto*, void* self, int id, int count, const int* granted) {
            bool all = true;
            for (int i = 0; i < count; ++i) {
                all = all && granted[i] <= 2;
            }
            static_cast<BrokerConnection*>(self)->events_.subscribed(id, all);
        });
    mosquitto_unsubscribe_callback_set(handle, [](mosquitto*, void* self, int id) {
        static_cast<BrokerConnection*>(self)->events_.unsubscribed(id);
    });
    mosquitto_log_callback_set(handle, [](mosquitto*, void* self, int level, const char* text) {
        if (level == MOSQ_LOG_ERR) {
            static_cast<BrokerConnection*>(self)->libraryError_ = text;
        }
    });
}

void BrokerConnection::onConnect(int code) {
    if (code != 0) {
        finish(std::string("the broker refuses the connection: ") + mosquitto_connack_string(code));
        return;
    }
    acceptedAt_ = Clock::now();
    events_.accepted();
}

int BrokerConnection::descriptor() const {
    return hasEnded() ? -1 : mosquitto_socket(handle_.get());
}

short BrokerConnection::pollEvents() const {
    const bool writes = !tcpConnected_ || mosquitto_want_write(handle_.get());
    return static_cast<short>(POLLIN | (writes ? POLLOUT : 0));
}

bool BrokerConnection::isCongested() const {
    return mosquitto_want_write(handle_.get());
}

void BrokerConnection::handle(short pollResult) {
    if (!hasEnded() && !tcpConnected_ && (pollResult & (POLLOUT | POLLERR | POLLHUP)) != 0) {
        if (const int error = socketError(descriptor())) {
            finish(std::strerror(error));
            return;
        }
        tcpConnected_ = true;
    }
    if (!hasEnded() && (pollResult & POLLOUT) != 0) {
        check(mosquitto_loop_write(handle_.get(), 1));
    }
    if (!hasEnded() && (pollResult & (POLLIN | POLLERR | POLLHUP)) != 0) {
        check(mosquitto_loop_read(handle_.get(), 1));
        acknowledgeAtOnce(descriptor());
    }
    if (!hasEnded() && Clock::now() - lastCare_ >= CARE_INTERVAL / 2) {
        keepAlive();
    }
}

/// The library sends a ping when it is time, but gives an answer as long as until the next one; it
/// does not tell that it has sent one either. What the system counts does.
void BrokerConnection::keepAlive() {
    lastCare_ = Clock::now();
    const auto before = trafficOf(descriptor());
    check(mosquitto_loop_misc(handle_.get()));
    const auto after = trafficOf(descriptor());
    if (hasEnded() || !acceptedAt_ || !before || !after) {
        return;
    }
    if (!pingSentAt_ && after->sent != before->sent) {
        pingSentAt_ = lastCare_;
        receivedBeforePing_ = before->received;
    }
    if (after->received != receivedBeforePing_) {
        pingSentAt_.reset();
    } else if (pingSentAt_ && lastCare_ - *pingSentAt_ >= timing_.pingLimit) {
        finish("the broker does not answer a ping");
    }
}

std::optional<int> BrokerConnection::publish(const Publication& publication) {
    int id = 0;
    check(mosquitto_publish(handle_.get(), &id, publication.topic.c_str(),
                            static_cast<int>(publication.payload.size()),
                            publication.payload.data(), QOS, publication.retained));
    return hasEnded() ? std::nullopt : std::optional(id);
}

std::optional<int> BrokerConnection::subscribe(const std::vector<std::string>& filters, int qos) {
    std::vector<char*> texts;
    texts.reserve(filters.size());
    for (const std::string& filter : filters) {
        // The library's parameter lacks the const that it means.
        texts.push_back(const_cast<char*>(filter.c_str())); // NOLINT(*-const-cast)
    }
    int id = 0;
    check(mosquitto_subscribe_multiple(handle_.get(), &id, static_cast<int>(texts.size()),
                                       texts.data(), qos, 0, nullptr));
    return hasEnded() ? std::nullopt : std::optional(id);
}

std::optional<int> BrokerConnection::unsubscribe(const std::string& filter) {
    int id = 0;
    check(mosquitto_unsubscribe(handle_.get(), &id, filter.c_str()));
    return hasEnded() ? std::nullopt : std::optional(id);
}

void BrokerConnection::disconnect() {
    if (!hasEnded()) {
        mosquitto_disconnect(handle_.get());
    }
}

void BrokerConnection::check(int result) {
    if (result == MOSQ_ERR_SUCCESS || hasEnded()) {
        return;
    }
    const int systemError = errno;
    if (!libraryError_.empty()) {
        finish(libraryError_);
    } else if (result == MOSQ_ERR_ERRNO) {
        finish(std::strerror(systemError));
    } else if (result == MOSQ_ERR_CONN_LOST) {
        finish("the broker closed the connection");
    } else {
        finish(mosquitto_strerror(result));
    }
}

void BrokerConnection::finish(const std::string& reason) {
    if (end_.empty()) {
        end_ = reason.empty() ? "the connection ended" : reason;
    }
}

} // namespace mqttbridge
