#include <cstdio>
#include <vector>

#include <unistd.h>

#include "load/Workloads.h"
#include "net/Socket.h"

void holdClients(const net::Arguments& arguments) {
    const std::string request = net::fromHex(arguments.text("request"));
    std::vector<net::Socket> clients;
    for (std::uint64_t index = 0; index < arguments.number("clients"); ++index) {
        clients.push_back(net::connectToPort(arguments.port("port")));
        clients.back().send(request);
        clients.back().receiveLine();
    }
    std::puts("{\"ready\": true}");
    static_cast<void>(std::fflush(stdout));
    char ignored = 0;
    while (::read(STDIN_FILENO, &ignored, 1) > 0) {
    }
}
