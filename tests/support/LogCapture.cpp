#include "support/LogCapture.h"

#include <cstdio>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

#include "support/LogLines.h"

namespace support {

namespace {

void flushStreams() {
    std::cout.flush();
    static_cast<void>(std::fflush(nullptr));
}

Descriptor redirect(int stream, const CapturedFile& target) {
    Descriptor saved(fcntl(stream, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    dup2(target.descriptor(), stream);
    return saved;
}

void restore(int stream, const Descriptor& saved) {
    dup2(saved.number(), stream);
}

} // namespace

LogCapture::LogCapture() {
    flushStreams();
    savedOutput_ = redirect(STDOUT_FILENO, outputFile_);
    savedError_ = redirect(STDERR_FILENO, errorFile_);
}

LogCapture::~LogCapture() {
    flushStreams();
    restore(STDOUT_FILENO, savedOutput_);
    restore(STDERR_FILENO, savedError_);
    if (testing::Test::HasFailure()) {
        std::cout << "--- captured output\n"
                  << output() << "--- captured error\n"
                  << error() << "---" << std::endl;
    }
}

std::vector<std::string> LogCapture::outputLines() const {
    return logLines(output());
}

std::vector<std::string> LogCapture::errorLines() const {
    return logLines(error());
}

testing::AssertionResult LogCapture::waitForOutput(std::string_view text, std::size_t count) const {
    return waitForText(outputFile_, text, count);
}

testing::AssertionResult LogCapture::waitForError(std::string_view text, std::size_t count) const {
    return waitForText(errorFile_, text, count);
}

testing::AssertionResult waitForText(const CapturedFile& file, std::string_view text,
                                     std::size_t count, std::chrono::milliseconds limit) {
    // Each look reads on from the last one; the overlap finds a text that one look cut.
    std::size_t found = 0;
    std::string pending;
    std::size_t offset = 0;
    const bool done = eventually(
        [&] {
            const std::string fresh = file.text(offset);
            offset += fresh.size();
            pending += fresh;
            const std::size_t last = pending.rfind(text);
            found += countOf(text, pending);
            if (last != std::string::npos) {
                pending.erase(0, last + text.size());
            } else if (pending.size() > text.size()) {
                pending.erase(0, pending.size() - text.size());
            }
            return found >= count;
        },
        limit);
    if (done) {
        return testing::AssertionSuccess();
    }
    constexpr std::size_t SHOWN = 4000;
    const std::string all = file.text();
    return testing::AssertionFailure()
           << "\"" << text << "\" was written " << found << " times, not " << count
           << "; the log ends with:\n"
           << (all.size() > SHOWN ? all.substr(all.size() - SHOWN) : all);
}

} // namespace support
