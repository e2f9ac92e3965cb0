#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "net/Arguments.h"
#include "net/Socket.h"
#include "peers/BareClients.h"
#include "peers/BoardLink.h"

namespace {

constexpr std::string_view USAGE = R"(Usage: bare-board WORK [--OPTION VALUE]...

Does one job of a board server with libftdi1 and nothing else.

write      --milliseconds N [--reader 1]: pin writes, beside a thread that waits for input if
           asked for; prints their rate as JSON
spin       waits for input with the library's own call, for ever
sleep      waits for input asleep, for ever
serve      --port PORT: writes a pin for every command of its clients, beside a reader
broadcast  --port PORT [--writes 1|2]: tells every client of each input change
publish    --port PORT [--hello HEX:COUNT]... --message HEX: sends these bytes to another server
           at each input change
)";

void measureWrites(const net::Arguments& arguments) {
    using Clock = std::chrono::steady_clock;
    BoardLink board;
    const std::chrono::milliseconds duration(arguments.number("milliseconds"));
    if (arguments.number("reader", 0) != 0) {
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

void spin(const net::Arguments& /*arguments*/) {
    BoardLink board;
    while (true) {
        board.readByteWithLibraryWait();
    }
}

void sleepOnInput(const net::Arguments& /*arguments*/) {
    BoardLink board;
    while (true) {
        board.readByte();
    }
}

void serve(const net::Arguments& arguments) {
    constexpr std::size_t COMMAND_LENGTH = 4;
    BoardLink board;
    std::mutex boardLock;
    BareClients clients(arguments.port("port"), COMMAND_LENGTH);
    clients.setWork([&board, &boardLock] {
        const std::lock_guard<std::mutex> guard(boardLock);
        board.writePin(0, true);
    });
    std::thread([&clients] { clients.serve(); }).detach();
    while (true) {
        board.awaitInputChange();
    }
}

void broadcast(const net::Arguments& arguments) {
    constexpr std::size_t COMMAND_LENGTH = 4;
    BoardLink board;
    BareClients clients(arguments.port("port"), COMMAND_LENGTH, arguments.number("writes", 2));
    std::thread([&clients] { clients.serve(); }).detach();
    while (true) {
        board.awaitInputChange();
        clients.broadcast("U2000|2000U");
    }
}

void publish(const net::Arguments& arguments) {
    const net::Socket socket = net::connectToPort(arguments.port("port"));
    for (const std::string& greeting : arguments.all("hello")) {
        const net::Exchange exchange(greeting);
        socket.send(exchange.request);
        socket.receiveExactly(exchange.answerLength);
    }
    const std::string message = net::fromHex(arguments.text("message"));
    BoardLink board;
    while (true) {
        board.awaitInputChange();
        socket.drain();
        socket.send(message);
    }
}

void run(const net::Arguments& arguments) {
    const std::string& work = arguments.command();
    if (work == "write") {
        measureWrites(arguments);
    } else if (work == "spin") {
        spin(arguments);
    } else if (work == "sleep") {
        sleepOnInput(arguments);
    } else if (work == "serve") {
        serve(arguments);
    } else if (work == "broadcast") {
        broadcast(arguments);
    } else if (work == "publish") {
        publish(arguments);
    } else {
        throw std::invalid_argument(std::string(USAGE));
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        run(net::Arguments(argc, argv));
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::cerr << "bare-board: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
