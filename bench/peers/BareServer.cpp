#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include "peers/BareClients.h"

int main(int argc, char** argv) {
    std::uint16_t port = 0;
    std::size_t writes = 2;
    CLI::App program("Answers the commands of its clients and does nothing else.", "bare-server");
    program.add_option("--port", port)->required();
    program.add_option("--writes", writes, "One or two for a line");
    try {
        CLI11_PARSE(program, argc, argv);
        static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        constexpr std::size_t COMMAND_LENGTH = 3;
        BareClients(port, COMMAND_LENGTH, writes).serve();
    } catch (const std::exception& failure) {
        std::cerr << "bare-server: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
