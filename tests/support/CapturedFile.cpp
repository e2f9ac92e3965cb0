#include "support/CapturedFile.h"

#include <array>
#include <atomic>
#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

#include "support/Eventually.h"
#include "support/LogLines.h"

namespace support {

namespace {

/// By open(), not mkstemp(): the thread sanitizer then knows that reading comes after writing.
Descriptor openNameless() {
    static std::atomic<int> counter = 0;
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() /
        ("captured-" + std::to_string(getpid()) + "-" + std::to_string(counter++));
    Descriptor file(
        open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (file.number() == -1) {
        throw std::runtime_error("no temporary file " + path.string());
    }
    unlink(path.c_str());
    return file;
}

} // namespace

CapturedFile::CapturedFile() : file_(openNameless()) {}

std::string CapturedFile::text(std::size_t offset) const {
    std::string all;
    std::array<char, 65536> part;
    while (true) {
        const ssize_t count = pread(file_.number(), part.data(), part.size(),
                                    static_cast<off_t>(offset + all.size()));
        if (count <= 0) {
            return all;
        }
        all.append(part.data(), static_cast<std::size_t>(count));
    }
}

testing::AssertionResult CapturedFile::waitFor(std::string_view wanted, std::size_t count,
                                               std::chrono::milliseconds limit) const {
    // Each look begins behind what the last one found, or where a text may have been cut.
    std::size_t found = 0;
    std::size_t begin = 0;
    const auto look = [&] {
        const std::string fresh = text(begin);
        found += countOf(wanted, fresh);
        if (const std::size_t last = fresh.rfind(wanted); last != std::string::npos) {
            begin += last + wanted.size();
        } else if (fresh.size() >= wanted.size()) {
            begin += fresh.size() - wanted.size() + 1;
        }
        return found >= count;
    };
    if (eventually(look, limit)) {
        return testing::AssertionSuccess();
    }
    constexpr std::size_t SHOWN = 4000;
    const std::string all = text();
    return testing::AssertionFailure()
           << "\"" << wanted << "\" was written " << found << " times, not " << count
           << "; the log ends with:\n"
           << (all.size() > SHOWN ? all.substr(all.size() - SHOWN) : all);
}

} // namespace support
