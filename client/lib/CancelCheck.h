#pragma once

#include <chrono>

namespace gpioclient {

/// How often an operation that waits asks whether it is cancelled.
constexpr std::chrono::milliseconds CANCEL_CHECK_INTERVAL{50};

} // namespace gpioclient
