#include "Http.h"

#include <algorithm>
#include <array>

#include <nlohmann/json.hpp>

#include "Text.h"

namespace webbridge {

namespace {

using bridge::equalsIgnoringCase;

constexpr std::array<std::pair<unsigned, std::string_view>, 18> REASONS{{
    {200, "OK"},
    {204, "No Content"},
    {304, "Not Modified"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {413, "Content Too Large"},
    {415, "Unsupported Media Type"},
    {421, "Misdirected Request"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {503, "Service Unavailable"},
}};

} // namespace

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view BLANKS = " \t";
    const std::size_t begin = text.find_first_not_of(BLANKS);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

std::size_t Request::count(std::string_view name) const {
    return static_cast<std::size_t>(
        std::count_if(fields.begin(), fields.end(),
                      [name](const auto& field) { return equalsIgnoringCase(field.first, name); }));
}

std::string_view Request::field(std::string_view name) const {
    for (const auto& [key, value] : fields) {
        if (equalsIgnoringCase(key, name)) {
            return value;
        }
    }
    return {};
}

std::string_view reasonOf(unsigned status) {
    for (const auto& [known, reason] : REASONS) {
        if (known == status) {
            return reason;
        }
    }
    return "Unknown";
}

std::string_view securityFields() {
    return "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
           "connect-src 'self'; img-src data:; form-action 'none'; base-uri 'none'; "
           "frame-ancestors 'none'\r\n"
           "X-Content-Type-Options: nosniff\r\n"
           "X-Frame-Options: DENY\r\n"
           "Referrer-Policy: no-referrer\r\n"
           "Cross-Origin-Resource-Policy: same-origin\r\n";
}

std::string Response::toString(bool headOnly, bool keepAlive) const {
    std::string text = "HTTP/1.1 " + std::to_string(status) + " ";
    text += reasonOf(status);
    text += "\r\n";
    text += securityFields();
    for (const auto& [name, value] : fields) {
        text += name;
        text += ": ";
        text += value;
        text += "\r\n";
    }
    const bool mayHaveBody = status != 204 && status != 304;
    if (mayHaveBody) {
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    text += keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
    if (mayHaveBody && !headOnly) {
        text += body;
    }
    return text;
}

Response errorResponse(unsigned status, std::string_view text) {
    Response response;
    response.status = status;
    response.fields = {{"Content-Type", "application/json"}, {"Cache-Control", "no-store"}};
    response.body = nlohmann::json{{"error", text}}.dump() + "\n";
    return response;
}

} // namespace webbridge
