#include "lang/Text.h"

#include <array>
#include <cinttypes>
#include <cstdio>

namespace lang {

std::string toHex(std::uint64_t number, int digits) {
    std::array<char, 2 * sizeof(number) + 1> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%0*" PRIx64, digits, number));
    return text.data();
}

} // namespace lang
