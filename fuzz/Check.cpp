#include "Check.h"

#include <array>
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

} // namespace

void keepErrorStream() {
    reports = dup(STDERR_FILENO);
}

void enableDebugLog() {
    std::string program = "fuzz";
    std::string port = "--port=1";
    std::string debug = "--debug";
    std::array arguments = {program.data(), port.data(), debug.data()};
    const Launcher settings(static_cast<int>(arguments.size()), arguments.data());
}

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
