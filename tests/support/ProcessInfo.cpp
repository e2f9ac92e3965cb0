#include "support/ProcessInfo.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <system_error>

#include <unistd.h>

namespace support {

namespace {

std::filesystem::path directory(pid_t process, const char* name) {
    return std::filesystem::path("/proc") / std::to_string(process) / name;
}

std::vector<std::filesystem::path> entries(const std::filesystem::path& path) {
    std::vector<std::filesystem::path> found;
    std::error_code gone;
    for (std::filesystem::directory_iterator entry(path, gone), end; !gone && entry != end;
         entry.increment(gone)) {
        found.push_back(entry->path());
    }
    return found;
}

std::set<std::string> socketInodes(pid_t process) {
    std::set<std::string> inodes;
    const std::string prefix = "socket:[";
    for (const std::filesystem::path& entry : entries(directory(process, "fd"))) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry, gone).string();
        if (!gone && target.starts_with(prefix)) {
            inodes.insert(target.substr(prefix.size(), target.size() - prefix.size() - 1));
        }
    }
    return inodes;
}

/// The server makes no pipes, while a sanitizer keeps a pair to the symbolizer that it starts at
/// its first finding, to see whether a suppression applies.
bool isPipe(const std::filesystem::path& descriptor) {
    std::error_code gone;
    return std::filesystem::read_symlink(descriptor, gone).string().starts_with("pipe:");
}

struct TcpEntry {
    std::uint16_t port = 0;
    std::string state;
    std::string inode;
};

std::optional<TcpEntry> parseTcpEntry(const std::string& line) {
    std::istringstream fields(line);
    std::string slot;
    std::string local;
    std::string ignored;
    TcpEntry entry;
    fields >> slot >> local >> ignored >> entry.state;
    constexpr int FIELDS_BEFORE_INODE = 5;
    for (int field = 0; field < FIELDS_BEFORE_INODE; ++field) {
        fields >> ignored;
    }
    fields >> entry.inode;
    const std::size_t colon = local.find(':');
    if (!fields || colon == std::string::npos) {
        return std::nullopt;
    }
    constexpr int HEXADECIMAL = 16;
    entry.port =
        static_cast<std::uint16_t>(std::stoul(local.substr(colon + 1), nullptr, HEXADECIMAL));
    return entry;
}

} // namespace

bool isAsleep(pid_t process, pid_t thread) {
    std::ifstream file(directory(process, "task") / std::to_string(thread) / "stat");
    std::string line;
    std::getline(file, line);
    // The state follows the name, which is in brackets and may contain anything.
    const auto name = line.rfind(") ");
    return name != std::string::npos && line.compare(name + 2, 1, "S") == 0;
}

std::size_t threadCount(pid_t process) {
    return entries(directory(process, "task")).size();
}

std::size_t descriptorCount(pid_t process) {
    const std::vector<std::filesystem::path> all = entries(directory(process, "fd"));
    return all.size() - static_cast<std::size_t>(std::count_if(all.begin(), all.end(), isPipe));
}

std::vector<int> descriptors(pid_t process) {
    std::vector<int> numbers;
    for (const std::filesystem::path& entry : entries(directory(process, "fd"))) {
        numbers.push_back(std::stoi(entry.filename().string()));
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

long anonymousKilobytes(pid_t process) {
    std::ifstream file(directory(process, "smaps_rollup"));
    const std::string name = "Anonymous:";
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(name)) {
            return std::stol(line.substr(name.size()));
        }
    }
    return 0;
}

double processorSeconds(pid_t process) {
    clockid_t clock = 0;
    timespec used{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0) {
        return 0;
    }
    constexpr double NANOSECOND = 1e-9;
    return static_cast<double>(used.tv_sec) + NANOSECOND * static_cast<double>(used.tv_nsec);
}

std::optional<std::uint16_t> listeningPort(pid_t process) {
    const std::string listening = "0A";
    std::optional<std::uint16_t> lowest;
    const std::set<std::string> inodes = socketInodes(process);
    std::ifstream table(directory(process, "net/tcp"));
    for (std::string line; std::getline(table, line);) {
        const std::optional<TcpEntry> entry = parseTcpEntry(line);
        if (entry && entry->state == listening && inodes.contains(entry->inode) &&
            (!lowest || entry->port < *lowest)) {
            lowest = entry->port;
        }
    }
    return lowest;
}

pid_t self() {
    return getpid();
}

} // namespace support
