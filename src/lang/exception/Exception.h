#pragma once

#include <string>
#include <utility>

#include "lang/Object.h"

namespace lang {

/// Root of the system's own exceptions; thrown by value, caught by reference. Not derived from
/// std::exception: the handlers of this system are those for lang::Exception alone.
class Exception : public Object {
public:
    explicit Exception(std::string text) : message(std::move(text)) {}

    const std::string getMessage() { return message; }

private:
    std::string message;
};

} // namespace lang
