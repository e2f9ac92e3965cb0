#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "load/Samples.h"
#include "load/Workloads.h"
#include "net/Bytes.h"
#include "net/Socket.h"

namespace {

/// A program that is ended again with this object.
class Program {
public:
    explicit Program(std::vector<std::string> words) {
        std::vector<char*> argv;
        argv.reserve(words.size() + 1);
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        const int result =
            posix_spawn(&pid_, argv.front(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (result != 0) {
            throw std::runtime_error("cannot start " + words.front());
        }
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_ = 0;
};

} // namespace

void measureStart(const LoadOptions& options) {
    const std::string request = net::fromHex(options.request);
    const std::uint16_t port = options.port;
    const auto begin = Samples::Clock::now();
    const Program program(options.words);
    net::Socket socket = net::tryPort(port);
    while (socket.descriptor() < 0) {
        if (Samples::Clock::now() > begin + std::chrono::seconds(10)) {
            throw std::runtime_error("the program does not listen");
        }
        socket = net::tryPort(port);
    }
    socket.send(request);
    socket.receiveLine();
    Samples samples;
    samples.add(begin, Samples::Clock::now());
    std::printf("{\"p50\": %.1f}\n", samples.percentile(0.5));
}
