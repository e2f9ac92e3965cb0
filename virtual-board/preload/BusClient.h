#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/BusProtocol.h"

namespace virtualusb {

/// The preload library's way to the board. Stateless: every synchronous request travels on a
/// connection of its own, so that an opened device costs the process exactly one descriptor, as a
/// real one does. Safe from any thread.
class BusClient {
public:
    struct Answer {
        int result; ///< negative errno on failure
        std::vector<std::uint8_t> payload;
    };

    /// Whether this process was told to use a virtual board; decided once.
    static bool enabled();

    /// Sends one request and waits for its answer.
    static Answer call(RequestKind kind, std::uint32_t handle, std::uint32_t argument,
                       std::string_view payload = {});

    /// Like call(), but keeps the connection: returns its descriptor, owned by the caller, and the
    /// answer's result in `result`; a negative errno when the request failed.
    static int callAndKeep(RequestKind kind, std::uint32_t argument, std::uint32_t& result);

private:
    static std::string socketPath();
    static int connect();
    static Answer exchange(int descriptor, const Request& request, std::string_view payload);
};

} // namespace virtualusb
