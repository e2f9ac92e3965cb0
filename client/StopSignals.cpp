#include "StopSignals.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <thread>

#include <gpio-client/Types.h>

namespace {

using Handler = void (*)(int);

constexpr std::array STOPS{SIGHUP, SIGINT, SIGPIPE, SIGQUIT, SIGTERM};
constexpr std::array FAULTS{SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV};

std::atomic<int> received = 0;
std::atomic<void (*)()> suddenEndAction = nullptr;
static_assert(std::atomic<int>::is_always_lock_free &&
              std::atomic<void (*)()>::is_always_lock_free);

void handle(int signal, Handler handler) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

bool isIgnored(int signal) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

/// In a handler the signal is delivered once more when the handler returns.
void dieBy(int signal) {
    handle(signal, SIG_DFL);
    static_cast<void>(raise(signal));
}

void endAtOnce(int signal) {
    if (void (*const action)() = suddenEndAction) {
        action();
    }
    dieBy(signal);
}

void remember(int signal) {
    int none = 0;
    const bool isFirst = received.compare_exchange_strong(none, signal);
    // A terminal that goes away and a reader that has gone may be told more than once.
    if (!isFirst && signal != SIGHUP && signal != SIGPIPE) {
        endAtOnce(signal);
    }
}

} // namespace

void StopSignals::install() {
    for (const int signal : STOPS) {
        if (!isIgnored(signal)) {
            handle(signal, remember);
        }
    }
}

bool StopSignals::requested() {
    return received != 0;
}

void StopSignals::dieAsRequested() {
    if (received != 0) {
        dieBy(received);
    }
}

void StopSignals::sleepFor(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    for (auto now = end - time; now < end && !requested(); now = std::chrono::steady_clock::now()) {
        std::this_thread::sleep_until(std::min(end, now + gpioclient::CANCEL_CHECK_INTERVAL));
    }
}

void StopSignals::onSuddenEnd(void (*action)()) {
    suddenEndAction = action;
    for (const int signal : FAULTS) {
        handle(signal, action != nullptr ? endAtOnce : SIG_DFL);
    }
}
