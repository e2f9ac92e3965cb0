#include "support/VirtualBoard.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "protocol/BusProtocol.h"
#include "protocol/ControlClient.h"

namespace {

constexpr std::chrono::seconds READY_TIMEOUT{30};
constexpr std::chrono::milliseconds READY_POLL{5};

std::string makeDirectory() {
    std::string pattern = std::filesystem::temp_directory_path() / "virtual-board-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), pattern);
    }
    return pattern;
}

/// Starts the board with `input` as its standard input.
pid_t spawn(std::vector<std::string> words, int input) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (auto& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    pid_t pid = -1;
    const int error =
        ::posix_spawn(&pid, words.front().c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), words.front());
    }
    return pid;
}

} // namespace

VirtualBoard::VirtualBoard(const std::vector<std::string>& options) : directory_(makeDirectory()) {
    try {
        start(options);
        waitUntilReady();
    } catch (...) {
        stop();
        throw;
    }
}

VirtualBoard::~VirtualBoard() {
    stop();
}

void VirtualBoard::start(const std::vector<std::string>& options) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    lifeline_ = ends[1];
    std::vector<std::string> words{VIRTUAL_BOARD_EXECUTABLE, "--directory", directory_,
                                   "--until-end-of-input"};
    words.insert(words.end(), options.begin(), options.end());
    try {
        pid_ = spawn(words, ends[0]);
    } catch (...) {
        ::close(ends[0]);
        throw;
    }
    ::close(ends[0]);
}

void VirtualBoard::waitUntilReady() const {
    const auto deadline = std::chrono::steady_clock::now() + READY_TIMEOUT;
    while (true) {
        try {
            command("stats plugged");
            return;
        } catch (const std::system_error&) {
            if (::waitpid(pid_, nullptr, WNOHANG | WNOWAIT) == pid_ ||
                std::chrono::steady_clock::now() > deadline) {
                throw;
            }
        }
        std::this_thread::sleep_for(READY_POLL);
    }
}

void VirtualBoard::stop() {
    if (lifeline_ >= 0) {
        ::close(lifeline_);
    }
    if (pid_ > 0) {
        ::waitpid(pid_, nullptr, 0);
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::string VirtualBoard::command(const std::string& text) const {
    const std::string answer = sendControlCommand(directory_, text);
    if (!answer.starts_with("ok")) {
        throw std::runtime_error(text + ": " + answer);
    }
    return answer.size() > 3 ? answer.substr(3) : std::string();
}

std::uint64_t VirtualBoard::value(const std::string& name) const {
    return std::stoull(command("stats " + name));
}

void VirtualBoard::waitFor(const std::string& condition, std::chrono::milliseconds timeout) const {
    command("wait " + condition + " " + std::to_string(timeout.count()));
}

std::vector<std::string> VirtualBoard::environment() const {
    return {"LD_PRELOAD=" + libraryPath(),
            std::string(virtualusb::DIRECTORY_VARIABLE) + "=" + directory_};
}

std::string VirtualBoard::libraryPath() {
    return VIRTUAL_USB_LIBRARY;
}
