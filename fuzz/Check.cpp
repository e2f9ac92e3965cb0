#include "Check.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "Launcher.h"
#include "log/StandardStreams.h"

namespace fuzz {

namespace {

int reports = STDERR_FILENO;

std::string printable(std::string_view text) {
    static constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string result;
    for (const char character : text) {
        if (character >= ' ' && character <= '~' && character != '\\') {
            result.push_back(character);
            continue;
        }
        const auto byte = static_cast<unsigned char>(character);
        result.append({'\\', 'x', DIGITS[byte / DIGITS.size()], DIGITS[byte % DIGITS.size()]});
    }
    return result;
}

[[noreturn]] void fail(const std::string& report) {
    GpioLog::writeWhole(reports, "FINDING: " + report + "\n");
    std::abort();
}

/// Lets the code under test format its debug lines too.
void enableDebugLog() {
    std::string program = "fuzz";
    std::string port = "--port=1";
    std::string debug = "--debug";
    std::array arguments = {program.data(), port.data(), debug.data()};
    const Launcher settings(static_cast<int>(arguments.size()), arguments.data());
}

} // namespace

void expectEqual(std::string_view what, std::string_view expected, std::string_view actual) {
    if (expected != actual) {
        fail(std::string(what) + ": expected [" + printable(expected) + "], got [" +
             printable(actual) + "]");
    }
}

void expectEqual(std::string_view what, long expected, long actual) {
    expectEqual(what, std::to_string(expected), std::to_string(actual));
}

void expectTrue(std::string_view what, bool holds) {
    if (!holds) {
        fail(std::string(what));
    }
}

} // namespace fuzz

/// Called by the fuzzer before anything else.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // For the reports, since the log of the code under test is thrown away.
    fuzz::reports = dup(STDERR_FILENO);
    fuzz::enableDebugLog();
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    return 0;
}
