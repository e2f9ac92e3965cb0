#include "AnswerFormat.h"

#include "AbstractCommandHandler.h"
#include "lang/Text.h"

namespace AnswerFormat {

std::string frame(char letter, const std::string& payload) {
    return letter + payload + letter;
}

std::string frameFlag(char letter, int flag) {
    return frame(letter, flag != 0 ? ONE : ZERO);
}

std::string frameNumber(char letter, std::uint64_t number, int digits) {
    return frame(letter, lang::toHex(number, digits));
}

} // namespace AnswerFormat
