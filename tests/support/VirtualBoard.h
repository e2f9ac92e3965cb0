#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TemporaryDirectory.h"

namespace support {

/// A virtual board for the length of a test: starts the board process in a directory of its own and
/// ends it, whatever happens to the test. Programs started with environment() find it on USB.
/// Every function may be called from any thread. Functions throw std::runtime_error on failure.
///
///     VirtualBoard board({"--product", "6001"});
///     board.command("inputs 01 80");
///     board.waitFor("claims >= 1");
class VirtualBoard {
public:
    /// `options` are those of the board process, besides its directory ("--unplugged", ...).
    /// Returns when the board takes commands; throws at once when its process has ended.
    explicit VirtualBoard(const std::vector<std::string>& options = {});
    VirtualBoard(const VirtualBoard&) = delete;
    VirtualBoard& operator=(const VirtualBoard&) = delete;
    ~VirtualBoard();

    /// Runs one command and returns its answer without the leading "ok". The commands are listed by
    /// `virtual-board --help`.
    std::string command(const std::string& text) const;

    /// One counter or state, such as "claims".
    std::uint64_t value(const std::string& name) const;

    /// Waits until a condition such as "pending-reads = 1" or "output-3 1" holds; throws when it
    /// does not in time.
    void waitFor(const std::string& condition,
                 std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

    /// "NAME=VALUE" settings for the environment of a program that is to see the board.
    std::vector<std::string> environment() const;

    const std::string& getDirectory() const { return directory_.path(); }

    /// The library that environment() preloads.
    static std::string libraryPath();

private:
    TemporaryDirectory directory_;
    Process process_;
};

} // namespace support
