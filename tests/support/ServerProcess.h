#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/types.h>

#include "support/CapturedFile.h"
#include "support/Descriptor.h"
#include "support/Eventually.h"

namespace support {

/// What one of a process's standard streams is connected to.
struct Stream {
    enum class Kind { Captured, Closed, Path, Descriptor };

    static Stream captured() { return {}; }
    static Stream closed() { return {Kind::Closed, {}, -1}; }
    static Stream to(std::string file) { return {Kind::Path, std::move(file), -1}; }
    /// The descriptor stays the caller's.
    static Stream on(int number) { return {Kind::Descriptor, {}, number}; }

    Kind kind = Kind::Captured;
    std::string path;
    int descriptor = -1;
};

enum class BrokenPipe { Ignored, Inherited };

/// How a server is started. A port of 0 lets the system choose a free one.
struct ServerOptions {
    std::vector<std::string> arguments = {"--port=0", "--test"};
    std::vector<std::pair<std::string, std::string>> environment;
    std::vector<std::pair<__rlimit_resource_t, rlim_t>> limits;
    BrokenPipe brokenPipe = BrokenPipe::Ignored;
    Stream input = Stream::to("/dev/null");
    Stream output;
    Stream error;
    /// Empty for the server itself.
    std::string executable;
};

/// How a process has ended.
struct ProcessEnd {
    bool exited = false;
    int status = 0; ///< the exit status, when it exited
    int signal = 0; ///< the signal that ended it, otherwise
};

/// A server process of its own, killed with the object at the latest. The destructor fails the
/// test when the server ended although nobody waited for that, or a sanitizer reported something.
class ServerProcess {
public:
    /// Throws std::runtime_error when the process cannot be started.
    explicit ServerProcess(const ServerOptions& options = {});
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    ~ServerProcess();

    pid_t pid() const { return process_; }

    /// Waits until the server listens and returns the port. Throws std::runtime_error when it does
    /// not, or has ended.
    std::uint16_t port();

    /// What the server has written so far; empty for streams that are not captured.
    std::string output() const { return outputFile_.text(); }
    std::string error() const { return errorFile_.text(); }

    /// The same as lines without time stamps.
    std::vector<std::string> outputLines() const;
    std::vector<std::string> errorLines() const;

    /// Waits until the server has written `text` at least `count` times.
    testing::AssertionResult waitForOutput(std::string_view text, std::size_t count = 1,
                                           std::chrono::milliseconds limit = PATIENCE) const;
    testing::AssertionResult waitForError(std::string_view text, std::size_t count = 1,
                                          std::chrono::milliseconds limit = PATIENCE) const;

    /// Waits until the server ends by itself; empty when it does not.
    std::optional<ProcessEnd> waitForEnd(std::chrono::milliseconds limit = PATIENCE);

    bool isRunning();

    void sendSignal(int signal) const;

private:
    void updateEnd();
    void checkReports() const;

    CapturedFile outputFile_;
    CapturedFile errorFile_;
    pid_t process_ = -1;
    std::optional<ProcessEnd> end_;
    bool endExpected_ = false;
};

} // namespace support
