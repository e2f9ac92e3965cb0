#pragma once

#include <string>
#include <string_view>

#include "protocol/BusProtocol.h"

namespace virtualusb {

/// The preload library's way to the board. Every synchronous request travels on a connection of its
/// own, so that an opened device costs the process exactly one descriptor, as a real one does. Safe
/// from any thread.
struct Answer {
    int result; ///< negative errno on failure
    std::string payload;
};

/// Sends a request and waits for its answer.
Answer call(const Request& request, std::string_view payload = {});

/// Like call(), but keeps the connection: returns its descriptor, owned by the caller, and the
/// answer's result in `result`; a negative errno when the request failed.
int callAndKeep(const Request& request, int& result);

/// Sends a request and its payload; 0 or -ENODEV.
int sendRequest(int descriptor, Request request, std::string_view payload = {});

} // namespace virtualusb
