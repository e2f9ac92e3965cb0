#include "peers/BareClients.h"

#include <array>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

namespace {

// That of the server which is compared.
constexpr int BACKLOG = 1;

bool writeTwice(int client, std::string_view text) {
    return ::write(client, text.data(), text.size()) >= 0 && ::write(client, "\n", 1) >= 0;
}

} // namespace

BareClients::BareClients(std::uint16_t port, std::size_t readLimit, std::uint64_t writesPerAnswer)
    : listener_(net::listenOn(port, BACKLOG)), limit_(readLimit), writes_(writesPerAnswer) {}

void BareClients::serve() {
    while (true) {
        const int client = ::accept(listener_.descriptor(), nullptr, nullptr);
        if (client < 0) {
            continue;
        }
        {
            const std::lock_guard<std::mutex> guard(clientsLock_);
            clients_.insert(client);
        }
        std::thread(&BareClients::serveClient, this, client).detach();
    }
}

void BareClients::broadcast(std::string_view message) {
    const std::string whole = std::string(message) + "\n";
    const std::lock_guard<std::mutex> guard(clientsLock_);
    for (const int client : clients_) {
        if (writes_ == 1) {
            static_cast<void>(::write(client, whole.data(), whole.size()) >= 0);
        } else {
            writeTwice(client, message);
        }
    }
}

bool BareClients::answer(int client) const {
    work_();
    return writes_ == 1 ? ::write(client, "R0R\n", 4) >= 0 : writeTwice(client, "R0R");
}

void BareClients::serveClient(int client) {
    std::array<char, 8> buffer;
    while (::read(client, buffer.data(), limit_) > 0 && answer(client)) {
    }
    const std::lock_guard<std::mutex> guard(clientsLock_);
    clients_.erase(client);
    ::shutdown(client, SHUT_RDWR);
    ::close(client);
}
