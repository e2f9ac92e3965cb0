#include <array>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>

#include <sys/signalfd.h>
#include <unistd.h>

#include "board/Board.h"
#include "board/BusServer.h"
#include "board/Commands.h"
#include "board/ControlServer.h"
#include "board/Options.h"
#include "protocol/ControlClient.h"

namespace {

int control(const Options& options) {
    const std::string answer = sendControlCommand(options.directory, options.control);
    std::cout << answer << '\n';
    return answer.starts_with("ok") ? EXIT_SUCCESS : EXIT_FAILURE;
}

/// Makes SIGINT and SIGTERM end the loop, so that the sockets are removed.
void stopOnSignals(EventLoop& loop) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    loop.watch(signalfd(-1, &signals, SFD_CLOEXEC), [&loop] { loop.stop(); });
}

void stopAtEndOfInput(EventLoop& loop) {
    loop.watch(STDIN_FILENO, [&loop] {
        std::array<char, 256> ignored;
        if (read(STDIN_FILENO, ignored.data(), ignored.size()) <= 0) {
            loop.stop();
        }
    });
}

int serve(const Options& options) {
    EventLoop loop;
    Board board(loop);
    if (!options.firmwareSocket.empty()) {
        board.connectFirmware(options.firmwareSocket);
    }
    const BusServer bus(board, options.directory);
    Commands commands(board);
    for (const auto& command : options.setup) {
        commands.run(Commands::split(command));
    }
    if (!options.startsUnplugged) {
        board.plug();
    }
    ControlServer controlServer(loop, commands, options.directory);
    loop.setAfterRound([&controlServer] { controlServer.checkWaits(); });
    stopOnSignals(loop);
    if (options.endsWithInput) {
        stopAtEndOfInput(loop);
    }
    loop.run();
    board.unplug();
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv) {
    try {
        const Options options = Options::parse({argv + 1, argv + argc});
        if (options.showHelp) {
            std::cout << Options::usage() << Commands::help();
            return EXIT_SUCCESS;
        }
        return options.isControl ? control(options) : serve(options);
    } catch (const std::exception& failure) {
        std::cerr << "virtual-board: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
