#pragma once

#include <string_view>

namespace bridge {

/// Whether a text is an IPv4 or IPv6 address, without brackets and zone.
bool isAddress(std::string_view text);

/// Whether a name or address leads to this machine only: localhost in any case of letters,
/// 127.0.0.0/8, and ::1 in any of its forms. Nothing is looked up, and what is in doubt is none: a
/// yes lets a browser in, and a password or whoever drives the pins go without protection.
bool isLoopback(std::string_view host);

} // namespace bridge
