#pragma once

#include "lang/exception/Exception.h"

/// The command line cannot be used.
class LauncherException : public lang::Exception {
public:
    using lang::Exception::Exception;
};
