#include "support/Process.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <stdexcept>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Descriptor.h"

namespace support {

namespace {

/// Everything the child needs, made before the fork: the child may call nothing that allocates.
struct Preparation {
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    std::vector<char*> argumentPointers;
    std::vector<char*> environmentPointers;
    std::array<Descriptor, 3> opened;
    std::array<int, 3> streams{};
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> environmentWith(std::vector<std::string> entries) {
    const std::size_t added = entries.size();
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('=') + 1);
        if (std::none_of(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(added),
                         [&](const std::string& other) { return other.starts_with(name); })) {
            entries.push_back(text);
        }
    }
    return entries;
}

int openStream(const Stream& stream, const CapturedFile& capture, Descriptor& opened) {
    switch (stream.kind) {
    case Stream::Kind::Captured:
        return capture.descriptor();
    case Stream::Kind::Descriptor:
        return stream.descriptor;
    case Stream::Kind::Path:
        opened = Descriptor(open(stream.path.c_str(), O_RDWR | O_CLOEXEC));
        if (opened.number() == -1) {
            throw std::runtime_error("cannot open " + stream.path);
        }
        return opened.number();
    case Stream::Kind::Closed:
        break;
    }
    return -1;
}

void connectStreams(const std::array<int, 3>& streams) {
    for (int stream = 0; stream <= STDERR_FILENO; ++stream) {
        const int source = streams[static_cast<std::size_t>(stream)];
        if (source == -1) {
            close(stream);
        } else {
            dup2(source, stream);
        }
    }
}

[[noreturn]] void become(const ProcessOptions& options, const Preparation& preparation) {
    constexpr int NOT_STARTED = 127;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    static_cast<void>(
        std::signal(SIGPIPE, options.brokenPipe == BrokenPipe::Ignored ? SIG_IGN : SIG_DFL));
    for (const auto& [resource, value] : options.limits) {
        const rlimit limit{value, value};
        setrlimit(resource, &limit);
    }
    connectStreams(preparation.streams);
    execve(preparation.argumentPointers.front(), preparation.argumentPointers.data(),
           preparation.environmentPointers.data());
    _exit(NOT_STARTED);
}

} // namespace

Process::Process(const ProcessOptions& options) {
    Preparation preparation;
    preparation.arguments = options.arguments;
    preparation.arguments.insert(preparation.arguments.begin(), options.executable);
    preparation.environment = environmentWith(options.environment);
    preparation.argumentPointers = pointers(preparation.arguments);
    preparation.environmentPointers = pointers(preparation.environment);
    preparation.streams = {openStream(options.input, errorFile_, preparation.opened[0]),
                           openStream(options.output, outputFile_, preparation.opened[1]),
                           openStream(options.error, errorFile_, preparation.opened[2])};
    process_ = fork();
    if (process_ == 0) {
        become(options, preparation);
    }
    if (process_ < 0) {
        throw std::runtime_error("cannot fork");
    }
}

Process::~Process() {
    if (isRunning()) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    } else if (!endExpected_) {
        ADD_FAILURE() << "the process ended by itself with " << *end_ << "\n" << error();
    }
    checkReports();
}

std::optional<int> Process::waitForEnd(std::chrono::milliseconds limit) {
    endExpected_ = true;
    eventually([this] { return !isRunning(); }, limit);
    return end_;
}

bool Process::isRunning() {
    int status = 0;
    if (!end_ && waitpid(process_, &status, WNOHANG) == process_) {
        end_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return !end_;
}

void Process::sendSignal(int signal) {
    if (isRunning()) {
        kill(process_, signal);
    }
}

void Process::freeze() {
    sendSignal(SIGSTOP);
    siginfo_t stopped{};
    waitid(P_PID, static_cast<id_t>(process_), &stopped, WSTOPPED);
}

void Process::checkReports() const {
    const std::string text = error();
    for (const char* const mark : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                   "WARNING: ThreadSanitizer", "runtime error: "}) {
        if (text.find(mark) != std::string::npos) {
            ADD_FAILURE() << "a sanitizer reported:\n" << text;
            return;
        }
    }
}

} // namespace support
