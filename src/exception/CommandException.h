#pragma once

#include "lang/exception/Exception.h"

/// A malformed or unknown command; the message is what the client gets, framed.
class CommandException : public lang::Exception {
public:
    using lang::Exception::Exception;
};
