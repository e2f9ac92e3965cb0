#pragma once

#include <chrono>

/// The signals that end programs, turned into a request to stop, so that the connection can be
/// closed in order: a server whose client vanishes may be left writing to a closed socket.
namespace StopSignals {

/// Catches SIGHUP, SIGINT, SIGPIPE, SIGQUIT and SIGTERM, except those that are ignored. The first
/// one is a request; another SIGINT, SIGQUIT or SIGTERM ends the process at once.
void install();

bool requested();

/// Ends the process by the signal that asked for it, if one did.
void dieAsRequested();

/// Returns early when a stop is requested.
void sleepFor(std::chrono::milliseconds time);

/// What is left to do when a second signal or a fault ends the process at once; null for nothing.
/// The action may only call what signal handlers may.
void onSuddenEnd(void (*action)());

} // namespace StopSignals
