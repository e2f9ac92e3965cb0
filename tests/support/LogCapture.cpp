#include "support/LogCapture.h"

#include <cstdio>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

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

} // namespace support
