#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace net {

/// The command line as "--name value" pairs behind a leading word. Bad ones throw
/// std::invalid_argument.
class Arguments {
public:
    Arguments(int argc, char** argv);

    /// The leading word; empty when there is none.
    const std::string& command() const { return leading_; }

    std::string text(const std::string& name) const;
    std::string text(const std::string& name, const std::string& otherwise) const;
    std::vector<std::string> all(const std::string& name) const;
    std::uint64_t number(const std::string& name) const;
    std::uint64_t number(const std::string& name, std::uint64_t otherwise) const;
    std::uint16_t port(const std::string& name) const;
    bool has(const std::string& name) const;

private:
    std::string leading_;
    std::vector<std::pair<std::string, std::string>> pairs_;
};

/// The bytes that a row of hexadecimal digits stands for.
std::string fromHex(const std::string& digits);

/// Bytes to send and the number of bytes that come back for them, written as "HEX:COUNT".
struct Exchange {
    explicit Exchange(const std::string& text);

    std::string request;
    std::size_t answerLength = 0;
};

} // namespace net
