#pragma once

#include "lang/exception/Exception.h"

namespace lang {

/// Thrown by unlock() to a thread that does not own the monitor.
class IllegalUnlockException : public lang::Exception {
public:
    using lang::Exception::Exception;
};

} // namespace lang
