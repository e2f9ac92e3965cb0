#pragma once

#include <gpio-client/Error.h>

/// Runs the action; a request in it that Options::isCancelled ends is a regular end.
template <typename Action> void untilCancelled(Action action) {
    try {
        action();
    } catch (const gpioclient::Error& error) {
        if (error.cause() != gpioclient::Cause::Cancelled) {
            throw;
        }
    }
}
