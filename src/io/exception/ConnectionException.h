#pragma once

#include "lang/exception/Exception.h"

namespace io {

/// Reading from or writing to a client connection failed.
class ConnectionException : public lang::Exception {
public:
    using lang::Exception::Exception;
};

} // namespace io
