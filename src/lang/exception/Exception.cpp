#include "lang/exception/Exception.h"

#include <utility>

namespace lang {

Exception::Exception(std::string text) : message(std::move(text)) {}

const std::string Exception::getMessage() {
    return message;
}

} // namespace lang
