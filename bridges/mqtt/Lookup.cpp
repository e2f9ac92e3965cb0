#include "Lookup.h"

#include <array>
#include <mutex>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <netdb.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "Descriptor.h"

namespace mqttbridge {

struct Lookup::Shared {
    explicit Shared(int wakeDescriptor) : wake(fcntl(wakeDescriptor, F_DUPFD_CLOEXEC, 0)) {}

    void finish(Result outcome) {
        {
            const std::lock_guard lock(mutex);
            result = std::move(outcome);
        }
        eventfd_write(wake.get(), 1);
    }

    const Descriptor wake; ///< A copy, valid as long as the look-up lasts.
    std::mutex mutex;
    std::optional<Result> result;
};

namespace {

Lookup::Result addressesOf(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int error = getaddrinfo(host.c_str(), nullptr, &hints, &list);
    if (error != 0) {
        return {{}, "cannot find the host " + host + ": " + gai_strerror(error)};
    }
    Lookup::Result result;
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        std::array<char, NI_MAXHOST> text{};
        if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text.data(), text.size(), nullptr, 0,
                        NI_NUMERICHOST) == 0) {
            result.addresses.emplace_back(text.data());
        }
    }
    freeaddrinfo(list);
    if (result.addresses.empty()) {
        result.error = "the host " + host + " has no address";
    }
    return result;
}

} // namespace

Lookup::Lookup(const std::string& host, int wakeDescriptor)
    : shared_(std::make_shared<Shared>(wakeDescriptor)) {
    try {
        std::thread([shared = shared_, host] { shared->finish(addressesOf(host)); }).detach();
    } catch (const std::system_error& error) {
        shared_->finish({{}, std::string("cannot look up the broker: ") + error.what()});
    }
}

std::optional<Lookup::Result> Lookup::result() const {
    const std::lock_guard lock(shared_->mutex);
    return shared_->result;
}

} // namespace mqttbridge
