#include <cstdio>
#include <vector>

#include <unistd.h>

#include "load/Workloads.h"
#include "net/Bytes.h"
#include "net/Socket.h"

void holdClients(const LoadOptions& options) {
    const std::string request = net::fromHex(options.request);
    std::vector<net::Socket> clients;
    for (std::uint64_t index = 0; index < options.clients; ++index) {
        clients.push_back(net::connectToPort(options.port));
        clients.back().send(request);
        clients.back().receiveLine();
    }
    std::puts("{\"ready\": true}");
    static_cast<void>(std::fflush(stdout));
    char ignored = 0;
    while (::read(STDIN_FILENO, &ignored, 1) > 0) {
    }
}
