#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>

#include "load/Workloads.h"

namespace {

constexpr std::string_view USAGE = R"(Usage: load-generator WORKLOAD --port PORT [--OPTION VALUE]...

Loads a server on the loopback device and prints the figures as JSON; times in microseconds.
Bytes are written as hexadecimal digits; HEX:COUNT is bytes and the length of their answer.

rate       --request HEX --milliseconds N [--clients N] [--window REQUESTS] [--wait epoll|read]
connects   --request HEX --milliseconds N
hold       --request HEX --clients N; until standard input ends
broadcast  --hello HEX:COUNT... --message-bytes N --listeners N --changes N --trigger HEX...
           --trigger-path SOCKET | --trigger-port PORT [--trigger-hello HEX:COUNT...]
start      --request HEX --word PROGRAM --word ARGUMENT...
)";

} // namespace

int main(int argc, char** argv) {
    const std::map<std::string, void (*)(const net::Arguments&)> workloads = {
        {"rate", measureRate},
        {"connects", measureConnects},
        {"hold", holdClients},
        {"broadcast", measureBroadcast},
        {"start", measureStart}};
    try {
        const net::Arguments arguments(argc, argv);
        const auto workload = workloads.find(arguments.command());
        if (workload == workloads.end()) {
            std::cerr << USAGE;
            return EXIT_FAILURE;
        }
        workload->second(arguments);
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::cerr << "load-generator: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
