#pragma once

#include <atomic>
#include <functional>

namespace interposed {

/// What the next calls of this test executable meet instead of the system. 0 for the system's own.
inline std::atomic<int> threadCreationResult = 0;
inline std::atomic<int> socketError = 0;
inline std::atomic<int> acceptError = 0;
inline std::atomic<int> readError = 0;
inline std::atomic<int> sendError = 0;

/// Whether usleep() returns at once, and what it was last asked for.
inline std::atomic<bool> sleepless = false;
inline std::atomic<unsigned> lastSleep = 0;

/// How often sched_yield() was called.
inline std::atomic<int> yields = 0;

/// What runs on the calling thread, once, in the midst of the next read(), send() or accept():
/// the descriptor is chosen already and not yet used.
inline std::function<void()> inTheMidst;

/// What runs on the calling thread, once, after the next shutdown() has taken effect.
inline std::function<void()> afterShutdown;

} // namespace interposed
