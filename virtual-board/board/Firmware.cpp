#include "board/Firmware.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace {

constexpr std::string_view REQUEST_LETTERS = "RVWK";

std::uint8_t endLetter(char letter) {
    return static_cast<std::uint8_t>(std::tolower(static_cast<unsigned char>(letter)));
}

} // namespace

Firmware::Firmware(Statistics& counters, std::function<void(Bytes)> transmitter,
                   std::function<void()> restarter)
    : statistics(counters), transmit(std::move(transmitter)), restart(std::move(restarter)) {}

void Firmware::receive(std::uint8_t byte) {
    if (isSilent) {
        return;
    }
    std::shift_left(window.begin(), window.end(), 1);
    window.back() = byte;
    if (holdsMessage()) {
        handleMessage();
    }
}

bool Firmware::holdsMessage() const {
    const char letter = static_cast<char>(window.front());
    return REQUEST_LETTERS.find(letter) != std::string_view::npos &&
           window.back() == endLetter(letter);
}

void Firmware::handleMessage() {
    const auto message = window;
    window.fill(0);
    const char letter = static_cast<char>(message[0]);
    statistics.count(std::string("requests-") + letter);
    if (ignoredLetters.contains(letter)) {
        return;
    }
    switch (letter) {
    case 'R':
        send('R', inputs);
        break;
    case 'V':
        send('V', version);
        break;
    case 'W':
        writeOutput(message[1], static_cast<char>(message[2]));
        break;
    default:
        restart();
        break;
    }
}

void Firmware::powerOn() {
    window.fill(0);
    outputs.fill(false);
    isSilent = false;
}

void Firmware::setInputs(std::uint8_t a, std::uint8_t b, bool notify) {
    inputs = {a, b};
    if (notify) {
        statistics.count("input-changes");
        send('I', inputs);
    }
}

void Firmware::setIgnored(char letter, bool ignored) {
    if (ignored) {
        ignoredLetters.insert(letter);
    } else {
        ignoredLetters.erase(letter);
    }
}

void Firmware::send(char letter, const std::array<std::uint8_t, 2>& data) {
    if (isSilent) {
        return;
    }
    const std::array<std::uint8_t, MESSAGE_LENGTH> message{static_cast<std::uint8_t>(letter),
                                                           data[0], data[1], endLetter(letter)};
    transmit(message);
}

void Firmware::writeOutput(std::uint8_t pin, char value) {
    writes.push_back({pin, value});
    if (pin < OUTPUT_COUNT) {
        outputs.at(pin) = value == '1';
    }
}
