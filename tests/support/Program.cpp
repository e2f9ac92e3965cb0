#include "Program.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ; // NOLINT(readability-redundant-declaration)

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds PATIENCE{60};
constexpr int POLL_INTERVAL_MS = 100;

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    return result;
}

/// True while there may be more to read.
bool readInto(std::string& target, int descriptor) {
    std::array<char, 4096> buffer{};
    const ssize_t size = read(descriptor, buffer.data(), buffer.size());
    if (size > 0) {
        target.append(buffer.data(), static_cast<std::size_t>(size));
    }
    return size > 0 || (size < 0 && errno == EINTR);
}

} // namespace

Program::Program(std::vector<std::string> arguments, std::vector<std::string> environment) {
    std::array<int, 2> out{};
    std::array<int, 2> err{};
    if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);

    std::vector<char*> argumentPointers = pointers(arguments);
    argumentPointers.push_back(nullptr);
    std::vector<char*> environmentPointers = pointers(environment);
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environmentPointers.push_back(*entry);
    }
    environmentPointers.push_back(nullptr);
    const int result = posix_spawn(&pid_, argumentPointers[0], &actions, nullptr,
                                   argumentPointers.data(), environmentPointers.data());
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    outputPipe_ = out[0];
    errorPipe_ = err[0];
    if (result != 0) {
        throw std::runtime_error("cannot start " + arguments[0]);
    }
}

Program::~Program() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (const int descriptor : {outputPipe_, errorPipe_}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

void Program::pump() {
    std::array<pollfd, 2> entries{{{outputPipe_, POLLIN, 0}, {errorPipe_, POLLIN, 0}}};
    poll(entries.data(), entries.size(), POLL_INTERVAL_MS);
    for (auto& [descriptor, events, revents] : entries) {
        const bool isOutput = descriptor == outputPipe_;
        if (revents != 0 && !readInto(isOutput ? output_ : errors_, descriptor)) {
            close(descriptor);
            (isOutput ? outputPipe_ : errorPipe_) = -1;
        }
    }
}

bool Program::pumpUntil(const std::function<bool()>& condition) {
    const auto deadline = steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (steady_clock::now() > deadline || (outputPipe_ < 0 && errorPipe_ < 0)) {
            return false;
        }
        pump();
    }
    return true;
}

bool Program::waitForOutput(const std::string& text) {
    return pumpUntil([&] { return output_.find(text) != std::string::npos; });
}

bool Program::waitForErrors(const std::string& text) {
    return pumpUntil([&] { return errors_.find(text) != std::string::npos; });
}

void Program::signal(int number) const {
    kill(pid_, number);
}

int Program::wait() {
    if (!pumpUntil([&] { return outputPipe_ < 0 && errorPipe_ < 0; })) {
        kill(pid_, SIGKILL);
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
