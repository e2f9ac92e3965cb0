#pragma once

#include "lang/exception/Exception.h"

namespace lang {

/// For operations that a class cannot offer.
class UnsupportedOperationException : public lang::Exception {
public:
    using lang::Exception::Exception;
};

} // namespace lang
