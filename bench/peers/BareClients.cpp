#include "peers/BareClients.h"

#include <array>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

namespace {

// That of the server which is compared.
constexpr int BACKLOG = 1;

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

void BareClients::broadcast(std::string_view line) {
    const std::lock_guard<std::mutex> guard(clientsLock_);
    for (const int client : clients_) {
        writeLine(client, line);
    }
}

bool BareClients::writeLine(int client, std::string_view line) const {
    const std::size_t first = writes_ == 1 ? line.size() : line.size() - 1;
    return ::write(client, line.data(), first) >= 0 &&
           (writes_ == 1 || ::write(client, "\n", 1) >= 0);
}

void BareClients::serveClient(int client) {
    std::array<char, 8> buffer;
    while (::read(client, buffer.data(), limit_) > 0) {
        work_();
        if (!writeLine(client, "R0R\n")) {
            break;
        }
    }
    const std::lock_guard<std::mutex> guard(clientsLock_);
    clients_.erase(client);
    ::shutdown(client, SHUT_RDWR);
    ::close(client);
}
