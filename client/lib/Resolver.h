#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include <asio/ip/tcp.hpp>

#include <gpio-client/Types.h>

namespace gpioclient {

/// The addresses of a host, in the order to try them. `isCancelled` may be empty. Throws Error
/// (NameNotFound, TimedOut, Cancelled) and std::system_error when there is no thread to be had.
std::vector<asio::ip::tcp::endpoint> resolve(const Endpoint& endpoint,
                                             std::chrono::steady_clock::time_point deadline,
                                             const std::function<bool()>& isCancelled);

} // namespace gpioclient
