#pragma once

#include <dlfcn.h>

namespace virtualusb {

/// The definition of `name` that the program would have used without this library. The type is
/// that of `function`, which only serves to deduce it.
template <typename Function> Function* nextFunction(const char* name, Function* /*function*/) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace virtualusb

/// Calls the next definition of an interposed function; the look-up happens once per call site.
#define VIRTUAL_USB_NEXT(function)                                                                 \
    ([] {                                                                                          \
        static const auto next = virtualusb::nextFunction(#function, &(function));                 \
        return next;                                                                               \
    }())
