#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/signalfd.h>
#include <unistd.h>

#include "Commands.h"
#include "Microcontroller.h"
#include "Server.h"

namespace {

constexpr std::string_view USAGE =
    R"(Usage: firmware-simulator --elf FILE --socket PATH [--stepped] [--until-end-of-input]

Runs the firmware FILE on a simulated ATmega1284P. Its serial line is the Unix socket PATH, and the
socket PATH.control takes commands.

Options:
  --elf FILE            the program, build/firmware/firmware.elf
  --socket PATH         where to listen
  --stepped             time passes on the command "run" only; the serial line is in the commands
  --until-end-of-input  end when standard input ends
  --help                show this text

)";

struct Options {
    std::string elf;
    std::string socket;
    Server::Time time = Server::Time::Real;
    bool endsWithInput = false;
    bool showHelp = false;
};

Options parse(const std::vector<std::string>& words) {
    Options options;
    for (std::size_t index = 0; index < words.size(); ++index) {
        const std::string& word = words[index];
        if (word == "--stepped") {
            options.time = Server::Time::Stepped;
        } else if (word == "--until-end-of-input") {
            options.endsWithInput = true;
        } else if (word == "--help") {
            options.showHelp = true;
        } else if ((word == "--elf" || word == "--socket") && index + 1 < words.size()) {
            (word == "--elf" ? options.elf : options.socket) = words[++index];
        } else {
            throw std::invalid_argument("unknown or incomplete option: " + word);
        }
    }
    if (!options.showHelp && (options.elf.empty() || options.socket.empty())) {
        throw std::invalid_argument("--elf and --socket are needed");
    }
    return options;
}

/// Readable once SIGINT or SIGTERM has come, so that the sockets are removed.
int signalDescriptor() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

} // namespace

int main(int argc, char** argv) {
    try {
        const Options options = parse({argv + 1, argv + argc});
        if (options.showHelp) {
            std::cout << USAGE << Commands::help();
            return EXIT_SUCCESS;
        }
        Microcontroller board(options.elf);
        if (options.time == Server::Time::Real) {
            // The part starts while the host still looks for the bridge on its bus. What came
            // before its line is on would be lost.
            board.run(Microcontroller::FREQUENCY / 10);
        }
        Server server(board, options.socket, options.time);
        server.run(options.endsWithInput ? STDIN_FILENO : signalDescriptor());
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::cerr << "firmware-simulator: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
