#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/types.h>

#include "support/CapturedStreams.h"

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

enum class BrokenPipe { Ignored, Default };

/// How a process is started.
struct ProcessOptions {
    std::string executable;
    std::vector<std::string> arguments = {};
    /// NAME=VALUE entries that replace those of this process, or come besides them.
    std::vector<std::string> environment = {};
    std::vector<std::pair<__rlimit_resource_t, rlim_t>> limits = {};
    BrokenPipe brokenPipe = BrokenPipe::Default;
    Stream input = Stream::to("/dev/null");
    Stream output = Stream::captured();
    Stream error = Stream::captured();
};

/// A child process, killed with the object at the latest. Streams that are not captured stay empty
/// here. The destructor fails the test when the process ended although nobody waited for that, or a
/// sanitizer reported something.
class Process : public CapturedStreams {
public:
    /// Throws std::runtime_error when the process cannot be started.
    explicit Process(const ProcessOptions& options);
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    pid_t pid() const { return process_; }

    /// Waits until the process ends by itself: its exit status, or minus the signal that ended it;
    /// empty when it does not end.
    std::optional<int> waitForEnd(std::chrono::milliseconds limit = PATIENCE);

    bool isRunning();

    /// Does nothing once the process has ended.
    void sendSignal(int signal);

    /// Stops it; on a busy system the last thread stands still some time after the signal.
    void freeze();

private:
    void checkReports() const;

    pid_t process_ = -1;
    std::optional<int> end_;
    bool endExpected_ = false;
};

} // namespace support
