#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace support {

/// A new directory that goes, with what is in it, with the object.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        if (::mkdtemp(path_.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), path_);
        }
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }

private:
    std::string path_ = std::filesystem::temp_directory_path() / "test-XXXXXX";
};

} // namespace support
