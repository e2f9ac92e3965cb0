#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

/// A running child process whose output is collected. Ends it when destroyed.
class Program {
public:
    /// `environment` holds NAME=value entries that are added to this process's own.
    explicit Program(std::vector<std::string> arguments, std::vector<std::string> environment = {});
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Waits until standard output, or standard error, holds the text; false when it ends or
    /// takes too long without it.
    bool waitForOutput(const std::string& text);
    bool waitForErrors(const std::string& text);

    void signal(int number) const;

    /// Waits for the end: the exit status, or minus the signal that ended it.
    int wait();

    const std::string& output() const { return output_; }
    const std::string& errors() const { return errors_; }

private:
    bool pumpUntil(const std::function<bool()>& condition);
    void pump();

    pid_t pid_ = -1;
    int outputPipe_ = -1;
    int errorPipe_ = -1;
    std::string output_;
    std::string errors_;
};
