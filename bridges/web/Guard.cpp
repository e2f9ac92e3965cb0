#include "Guard.h"

#include <optional>
#include <utility>

#include "Host.h"
#include "Text.h"

namespace webbridge {

namespace {

using bridge::equalsIgnoringCase;
using bridge::lowered;

struct Authority {
    std::string host; ///< In lower case, without brackets.
    std::string port; ///< Empty when there is none.
};

bool isPort(std::string_view text) {
    return !text.empty() && text.size() <= 5 &&
           text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// host, host:port, [address] or [address]:port.
std::optional<Authority> parseAuthority(std::string_view text) {
    std::size_t end = text.find(':');
    std::string_view host = text.substr(0, end);
    if (text.starts_with('[')) {
        const std::size_t bracket = text.find(']');
        if (bracket == std::string_view::npos) {
            return std::nullopt;
        }
        host = text.substr(1, bracket - 1);
        end = bracket + 1 == text.size() ? std::string_view::npos : bracket + 1;
    }
    if (host.empty()) {
        return std::nullopt;
    }
    if (end == std::string_view::npos) {
        return Authority{lowered(host), {}};
    }
    if (text[end] != ':' || !isPort(text.substr(end + 1))) {
        return std::nullopt;
    }
    return Authority{lowered(host), std::string(text.substr(end + 1))};
}

std::optional<std::string> decodeBase64(std::string_view text) {
    constexpr std::string_view DIGITS =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    while (text.ends_with('=')) {
        text.remove_suffix(1);
    }
    std::string result;
    unsigned bits = 0;
    unsigned count = 0;
    for (const char character : text) {
        const std::size_t digit = DIGITS.find(character);
        if (digit == std::string_view::npos) {
            return std::nullopt;
        }
        bits = bits << 6 | static_cast<unsigned>(digit);
        count += 6;
        if (count >= 8) {
            count -= 8;
            result += static_cast<char>(bits >> count & 0xff);
        }
    }
    return result;
}

/// Takes a time that only the length of what was given decides.
bool equalsInConstantTime(std::string_view given, std::string_view expected) {
    std::size_t difference = given.size() ^ expected.size();
    for (std::size_t i = 0; i < given.size(); ++i) {
        difference |= static_cast<unsigned char>(given[i]) ^
                      static_cast<unsigned char>(expected[i % expected.size()]);
    }
    return difference == 0;
}

} // namespace

Guard::Guard(const std::set<std::string>& hosts, std::string password)
    : password_(std::move(password)) {
    for (const std::string& host : hosts) {
        hosts_.insert(lowered(host));
    }
}

bool Guard::allowsHost(const Request& request) const {
    const auto authority = parseAuthority(trimmed(request.field("Host")));
    return authority && (bridge::isLoopback(authority->host) || hosts_.contains(authority->host));
}

Guard::Credentials Guard::credentialsOf(const Request& request) const {
    if (password_.empty()) {
        return Credentials::Right;
    }
    const std::string_view field = trimmed(request.field("Authorization"));
    if (field.empty()) {
        return Credentials::Missing;
    }
    constexpr std::string_view SCHEME = "basic ";
    if (request.count("Authorization") != 1 ||
        !equalsIgnoringCase(field.substr(0, SCHEME.size()), SCHEME)) {
        return Credentials::Wrong;
    }
    const auto pair = decodeBase64(trimmed(field.substr(SCHEME.size())));
    return pair && equalsInConstantTime(*pair, "gpio:" + password_) ? Credentials::Right
                                                                    : Credentials::Wrong;
}

bool Guard::allowsOrigin(const Request& request) {
    if (request.count("Origin") == 0) {
        return true;
    }
    const std::string origin = lowered(trimmed(request.field("Origin")));
    const auto host = parseAuthority(trimmed(request.field("Host")));
    for (const auto& [scheme, port] :
         {std::pair<std::string_view, std::string_view>{"http://", "80"}, {"https://", "443"}}) {
        if (host && origin.starts_with(scheme)) {
            const auto from = parseAuthority(std::string_view(origin).substr(scheme.size()));
            const auto portOf = [defaultPort = port](const Authority& authority) {
                return authority.port.empty() ? std::string(defaultPort) : authority.port;
            };
            return from && from->host == host->host && portOf(*from) == portOf(*host);
        }
    }
    return false;
}

} // namespace webbridge
