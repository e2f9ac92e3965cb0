#pragma once

#include "lang/exception/Exception.h"

/// The board is not there; the client's connection is closed without an answer.
class DeviceUnavailableException : public lang::Exception {
public:
    using lang::Exception::Exception;
};
