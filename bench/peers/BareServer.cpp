#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "net/Arguments.h"
#include "peers/BareClients.h"

/// Usage: bare-server --port PORT [--writes 1|2]
int main(int argc, char** argv) {
    try {
        static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        constexpr std::size_t COMMAND_LENGTH = 3;
        const net::Arguments arguments(argc, argv);
        BareClients clients(arguments.port("port"), COMMAND_LENGTH, arguments.number("writes", 2));
        clients.serve();
    } catch (const std::exception& failure) {
        std::cerr << "bare-server: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
