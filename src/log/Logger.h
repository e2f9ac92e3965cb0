#pragma once

#include <string>

#include "lang/Object.h"

namespace GpioLog {

/// Writes one line a call: "[" local time "][" owner "] " message. May be called from any thread
/// without a lock, since a line is written as a whole. It filters nothing: whether a debug line is
/// wanted is the caller's question.
class Logger : public lang::Object {
public:
    explicit Logger(std::string owner);

    /// Writes to standard output. `format` and what follows are those of printf, so text from
    /// outside belongs into the arguments. A message is cut after 1023 bytes.
    virtual void debug(std::string format, ...);

    /// Writes to standard error; otherwise as debug().
    virtual void error(std::string format, ...);

    /// The local time as "2026-11-15 10:22:29", in a buffer that the calling thread's next call
    /// overwrites.
    static const char* currentTime();

private:
    std::string owner;
};

} // namespace GpioLog
