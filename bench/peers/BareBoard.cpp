#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "net/Bytes.h"
#include "net/Socket.h"
#include "peers/BareClients.h"
#include "peers/BoardLink.h"

namespace {

/// What the command line says. Bytes are hexadecimal digits; an exchange is "HEX:COUNT".
struct Options {
    std::size_t milliseconds = 0;
    bool reader = false;
    std::uint16_t port = 0;
    std::size_t writes = 2;
    std::vector<std::string> hello;
    std::string message;
};

void measureWrites(const Options& options) {
    using Clock = std::chrono::steady_clock;
    BoardLink board;
    const std::chrono::milliseconds duration(options.milliseconds);
    if (options.reader) {
        std::thread([&board] { board.awaitInputChange(); }).detach();
    }
    const auto begin = Clock::now();
    auto now = begin;
    std::uint64_t count = 0;
    for (; now < begin + duration; now = Clock::now()) {
        board.writePin(0, count++ % 2 == 0);
    }
    std::printf("{\"rate\": %.1f}\n",
                static_cast<double>(count) / std::chrono::duration<double>(now - begin).count());
    static_cast<void>(std::fflush(stdout));
    // The reader waits for ever.
    std::_Exit(EXIT_SUCCESS);
}

void spin(const Options& /*options*/) {
    BoardLink board;
    while (true) {
        board.readByteWithLibraryWait();
    }
}

void sleepOnInput(const Options& /*options*/) {
    BoardLink board;
    while (true) {
        board.readByte();
    }
}

void serve(const Options& options) {
    constexpr std::size_t COMMAND_LENGTH = 4;
    BoardLink board;
    std::mutex boardLock;
    BareClients clients(options.port, COMMAND_LENGTH);
    clients.setWork([&board, &boardLock] {
        const std::lock_guard<std::mutex> guard(boardLock);
        board.writePin(0, true);
    });
    std::thread([&clients] { clients.serve(); }).detach();
    while (true) {
        board.awaitInputChange();
    }
}

void broadcast(const Options& options) {
    constexpr std::size_t COMMAND_LENGTH = 4;
    BoardLink board;
    BareClients clients(options.port, COMMAND_LENGTH, options.writes);
    std::thread([&clients] { clients.serve(); }).detach();
    while (true) {
        board.awaitInputChange();
        clients.broadcast("U2000|2000U\n");
    }
}

void publish(const Options& options) {
    const net::Socket socket = net::connectToPort(options.port);
    net::greet(socket, options.hello);
    const std::string message = net::fromHex(options.message);
    BoardLink board;
    while (true) {
        board.awaitInputChange();
        socket.drain();
        socket.send(message);
    }
}

/// A job of a board server; runs when the command line is parsed.
CLI::App& add(CLI::App& program, const Options& options, const char* name, const char* description,
              void (*job)(const Options&)) {
    CLI::App& command = *program.add_subcommand(name, description);
    command.callback([&options, job] { job(options); });
    return command;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App program("Does one job of a board server with libftdi1 and nothing else.",
                     "bare-board");
    program.require_subcommand(1);
    CLI::App& write = add(program, options, "write", "Writes pins; prints the rate", measureWrites);
    write.add_option("--milliseconds", options.milliseconds)->required();
    write.add_flag("--reader", options.reader, "Beside a thread that waits for input");
    add(program, options, "spin", "Waits for input with the library's own call, for ever", spin);
    add(program, options, "sleep", "Waits for input asleep, for ever", sleepOnInput);
    CLI::App& serving = add(program, options, "serve", "Writes a pin for every command", serve);
    serving.add_option("--port", options.port)->required();
    CLI::App& telling =
        add(program, options, "broadcast", "Tells its clients each change", broadcast);
    telling.add_option("--port", options.port)->required();
    telling.add_option("--writes", options.writes, "One or two for a line");
    CLI::App& publishing =
        add(program, options, "publish", "Sends bytes to a server at each change", publish);
    publishing.add_option("--port", options.port)->required();
    publishing.add_option("--hello", options.hello, "First exchanges, HEX:COUNT");
    publishing.add_option("--message", options.message, "The bytes")->required();
    try {
        static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        CLI11_PARSE(program, argc, argv);
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::cerr << "bare-board: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
