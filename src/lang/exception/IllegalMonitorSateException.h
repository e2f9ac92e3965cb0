#pragma once

#include "lang/exception/Exception.h"

namespace lang {

/// Waiting or notifying was refused: the caller misuses the monitor.
class IllegalMonitorSateException : public lang::Exception {
public:
    using lang::Exception::Exception;
};

} // namespace lang
