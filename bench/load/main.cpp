#include <cstdlib>
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include "load/Workloads.h"

namespace {

/// A workload for a server at a port; runs when the command line is parsed.
CLI::App& add(CLI::App& program, LoadOptions& options, const char* name, const char* description,
              void (*workload)(const LoadOptions&)) {
    CLI::App& command = *program.add_subcommand(name, description);
    command.add_option("--port", options.port)->required();
    command.callback([&options, workload] { workload(options); });
    return command;
}

void addRequest(CLI::App& command, LoadOptions& options) {
    command.add_option("--request", options.request, "What each client sends")->required();
}

void addDuration(CLI::App& command, LoadOptions& options) {
    command.add_option("--milliseconds", options.milliseconds)->required();
}

void addRate(CLI::App& program, LoadOptions& options) {
    CLI::App& command = add(program, options, "rate", "Round trips of clients", measureRate);
    addRequest(command, options);
    addDuration(command, options);
    command.add_option("--clients", options.clients);
    command.add_option("--window", options.window, "Requests of each client on the way");
    command.add_flag("--blocking", options.blocking, "Let one client wait in a read");
}

void addConnects(CLI::App& program, LoadOptions& options) {
    CLI::App& command =
        add(program, options, "connects", "Connections, one after another", measureConnects);
    addRequest(command, options);
    addDuration(command, options);
}

void addBroadcast(CLI::App& program, LoadOptions& options) {
    CLI::App& command =
        add(program, options, "broadcast", "Changes to many listeners", measureBroadcast);
    command.add_option("--hello", options.hello, "First exchanges of a listener, HEX:COUNT");
    command.add_option("--message-bytes", options.messageBytes)->required();
    command.add_option("--listeners", options.listeners)->required();
    command.add_option("--changes", options.changes)->required();
    command.add_option("--trigger", options.triggers, "What is sent in turn")->required();
    auto& path = *command.add_option("--trigger-path", options.triggerPath, "Socket to send it to");
    auto& port = *command.add_option("--trigger-port", options.triggerPort, "Or the port");
    path.excludes(&port);
    command.add_option("--trigger-hello", options.triggerHello, "First exchanges there");
}

} // namespace

int main(int argc, char** argv) {
    LoadOptions options;
    CLI::App program("Loads a server on the loopback device and prints the figures as JSON; times "
                     "in microseconds. Bytes are written as hexadecimal digits.",
                     "load-generator");
    program.require_subcommand(1);
    addRate(program, options);
    addConnects(program, options);
    addBroadcast(program, options);
    try {
        CLI11_PARSE(program, argc, argv);
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::cerr << "load-generator: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
