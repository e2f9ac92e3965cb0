#pragma once

#include "lang/exception/Exception.h"

namespace io {

/// The listening socket could not be created or bound.
class ServerSocketException : public lang::Exception {
public:
    using lang::Exception::Exception;
};

} // namespace io
