#include "CommandModel.h"

#include <iomanip>
#include <sstream>
#include <string_view>

namespace fuzz {

namespace {

constexpr std::string_view SIMULATED_LETTERS = "ABDIKLOPRSW";
constexpr std::string_view BOARD_LETTERS = "ABDIKLOPRSVW";

std::string hex(std::uint64_t number, int width) {
    std::ostringstream stream;
    stream << std::hex << std::setfill('0') << std::setw(width) << number;
    return stream.str();
}

/// Messages are C strings to the server: what follows a zero byte is not shown.
std::string untilZero(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

Outcome answer(const std::string& text) {
    return {Outcome::ANSWER, text};
}

Outcome framed(char letter, const std::string& payload) {
    return answer(std::string(1, letter) + payload + std::string(1, letter));
}

Outcome flag(char letter, bool value) {
    return framed(letter, value ? "1" : "0");
}

Outcome invalid(const std::string& text, const std::string& command) {
    return {Outcome::COMMAND_ERROR, text + untilZero(command)};
}

Outcome unknown(const std::string& command) {
    return {Outcome::COMMAND_ERROR, "^UNKNOWN COMMAND: " + untilZero(command) + "^"};
}

/// The simulated bank's digit, as arithmetic modulo 256 on signed characters.
int wrappedDigit(char character) {
    const int code = static_cast<signed char>(character);
    const int offset = code <= 57 ? 48 : code <= 70 ? 55 : 87;
    return ((code - offset) % 256 + 256) % 256;
}

int boardDigit(char character) {
    const auto position = std::string_view("0123456789ABCDEF").find(character);
    return position == std::string_view::npos ? 0 : static_cast<int>(position);
}

int valueOf(char character) {
    return static_cast<signed char>(character) - 48;
}

} // namespace

Outcome SimulatedModel::handle(const std::string& command) {
    if (command.size() != 3) {
        return invalid("INVALLID COMMAND: ", command);
    }
    const char letter = command[0];
    if (letter == '\0' || SIMULATED_LETTERS.find(letter) == std::string_view::npos) {
        return unknown(command);
    }
    const auto index = static_cast<std::size_t>(wrappedDigit(command[1]));
    Pin missing;
    const bool exists = index < pins_.size();
    Pin& pin = exists ? pins_[index] : missing;
    const auto inputs = mask([](const Pin& one) { return one.input; });
    const auto inputCount = static_cast<std::uint64_t>(__builtin_popcountll(inputs));
    switch (letter) {
    case 'A':
        return framed(letter, hex(mask([](const Pin& one) { return one.value == 1; }), 4));
    case 'B':
        return answer("DBG");
    case 'D':
        return flag(letter, pin.input);
    case 'I':
        return framed(letter, hex(inputCount, 4));
    case 'O':
        return framed(letter, hex(pins_.size() - inputCount, 4));
    case 'P':
        return framed(letter, hex(inputs, 4));
    case 'R':
        return flag(letter, pin.value != 0);
    case 'S':
        pin.input = command[2] != '0';
        return flag(letter, exists);
    case 'W':
        pin.value = valueOf(command[2]);
        return flag(letter, exists);
    default:
        return answer(std::string(2, letter));
    }
}

std::uint64_t SimulatedModel::mask(bool (*wanted)(const Pin&)) const {
    std::uint64_t result = 0;
    for (std::size_t index = 0; index < pins_.size(); ++index) {
        result |= static_cast<std::uint64_t>(wanted(pins_[index])) << index;
    }
    return result;
}

Outcome BoardModel::handle(const std::string& command) {
    if (command.size() != 4) {
        return invalid("INVALID COMMAND: ", command);
    }
    if (!available) {
        return {Outcome::UNAVAILABLE, "Device not available!"};
    }
    const char letter = command[0];
    if (letter == '\0' || BOARD_LETTERS.find(letter) == std::string_view::npos) {
        return unknown(command);
    }
    const int pin = boardDigit(command[1]) * 16 + boardDigit(command[2]);
    switch (letter) {
    case 'A':
        return framed(letter, hex(allPins(), 8));
    case 'B':
        return answer("DBG");
    case 'D':
        return flag(letter, pin <= 12);
    case 'I':
        return framed(letter, "0010");
    case 'O':
        return framed(letter, "000d");
    case 'P':
        return framed(letter, "ffffffffffffe000");
    case 'R':
        return flag(letter, isHigh(pin));
    case 'S':
        return flag(letter, false);
    case 'V':
        return framed(letter, untilZero(firmwareVersion));
    case 'W':
        return flag(letter, write(pin, command[3] != '0'));
    default:
        return answer(std::string(2, letter));
    }
}

bool BoardModel::write(int pin, bool level) {
    if (pin > 12) {
        return false;
    }
    written.emplace_back(pin == 0 ? 12 : pin - 1, level);
    return writable;
}

bool BoardModel::isHigh(int pin) const {
    const unsigned inputs = portA + 256U * portB;
    return pin >= 13 && pin <= 28 && (inputs >> (pin - 13)) % 2 == 1;
}

std::uint64_t BoardModel::allPins() const {
    const std::uint64_t widened = portD >= 128 ? 0xFFFFFFFF00000000 : 0;
    return widened + portA + 256U * portB + 65536U * portC + 16777216UL * portD;
}

std::string bytesFor(const Outcome& outcome) {
    if (outcome.kind == Outcome::ANSWER) {
        return outcome.text + "\n";
    }
    std::string text = outcome.text;
    for (char& character : text) {
        character = character == '^' ? ' ' : character;
    }
    return "^" + text + "^";
}

} // namespace fuzz
