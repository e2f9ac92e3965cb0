#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mqttbridge {

/// The addresses of a host, looked up on a thread of its own, since the system's look-up blocks for
/// as long as a name server stays silent.
///
/// That thread is left behind when the end does not wait for it: it shares the ownership of all
/// that it touches, so it may outlive everything else.
class Lookup {
public:
    struct Result {
        std::vector<std::string> addresses; ///< Numeric, in the order to try them.
        std::string error;                  ///< Why there is none.
    };

    /// Begins at once. `wakeDescriptor`, an eventfd, is written to when the result is there.
    Lookup(const std::string& host, int wakeDescriptor);

    /// The result, once it is there.
    std::optional<Result> result() const;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

} // namespace mqttbridge
