#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace webbridge {

/// Header fields in their order; names as they were written.
using Fields = std::vector<std::pair<std::string, std::string>>;

/// A request as it was received.
struct Request {
    std::string method;
    std::string target;
    Fields fields;
    std::string body;
    std::optional<std::uint64_t> contentLength;
    bool chunked = false;
    bool keepAlive = true;

    /// How often a field occurs, whatever the case of its name.
    std::size_t count(std::string_view name) const;

    /// The first of that name; empty when there is none.
    std::string_view field(std::string_view name) const;

    bool announcesBody() const { return chunked || contentLength.value_or(0) != 0; }
};

/// What is sent back; a Content-Length and the fields that every answer has are added.
struct Response {
    unsigned status = 200;
    Fields fields;
    std::string body;
    bool close = false;   ///< Whether the connection ends with it.
    bool delayed = false; ///< Whether it is held back, to slow down the guessing of passwords.

    /// The bytes for the network; a head alone for the method HEAD.
    std::string toString(bool headOnly, bool keepAlive) const;
};

/// {"error": text}
Response errorResponse(unsigned status, std::string_view text);

/// The fields that keep a browser from doing with an answer what it is not for.
std::string_view securityFields();

std::string_view reasonOf(unsigned status);

std::string_view trimmed(std::string_view text);

} // namespace webbridge
