#pragma once

#include <mutex>
#include <string>
#include <vector>

using Steps = std::vector<std::string>;

/// What the code under test did, in order: calls of the library, log lines and long sleeps.
/// Log lines read "debug Owner: text" or "error Owner: text", sleeps "sleep 1000000".
class Journal {
public:
    static Journal& instance();

    void clear();
    void add(std::string step);
    Steps steps();

    /// The steps that begin with `prefix`.
    Steps stepsWith(const std::string& prefix);

private:
    std::mutex guard_;
    Steps entries_;
};

/// Joins lists of steps, so that tests read as sentences made of named stretches.
Steps operator+(Steps first, const Steps& second);
Steps operator+(Steps first, const std::string& step);
Steps repeated(int times, const Steps& steps);

/// A list that commas do not tear apart within a macro.
template <typename... Texts> Steps stepList(const Texts&... texts) {
    return {texts...};
}
