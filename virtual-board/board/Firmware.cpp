#include "board/Firmware.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace {

std::uint8_t endLetter(char letter) {
    return static_cast<std::uint8_t>(std::tolower(static_cast<unsigned char>(letter)));
}

} // namespace

Firmware::Firmware(Statistics& statistics, std::function<void(Bytes)> transmit,
                   std::function<void()> restart)
    : statistics_(statistics), transmit_(std::move(transmit)), restart_(std::move(restart)) {}

void Firmware::receive(Bytes bytes) {
    for (const std::uint8_t byte : bytes) {
        if (silent_) {
            return;
        }
        std::shift_left(window_.begin(), window_.end(), 1);
        window_.back() = byte;
        const char letter = static_cast<char>(window_.front());
        if (std::string_view("RVWK").find(letter) != std::string_view::npos &&
            window_.back() == endLetter(letter)) {
            handleMessage();
        }
    }
}

void Firmware::handleMessage() {
    const auto message = window_;
    window_.fill(0);
    const char letter = static_cast<char>(message[0]);
    ++statistics_[std::string("requests-") + letter];
    if (ignoredLetters_.contains(letter)) {
        return;
    }
    switch (letter) {
    case 'R':
        return send('R', inputs_);
    case 'V':
        return send('V', version_);
    case 'W':
        return writeOutput(message[1], static_cast<char>(message[2]));
    default:
        return restart_();
    }
}

void Firmware::powerOn() {
    window_.fill(0);
    outputs_.fill(false);
    inputs_ = throughWires(inputs_);
    silent_ = false;
}

void Firmware::setInputs(const Ports& ports, bool notify) {
    inputs_ = throughWires(ports);
    if (notify) {
        ++statistics_["input-changes"];
        send('I', inputs_);
    }
}

void Firmware::clearLog() {
    log_.clear();
    writeCount_ = 0;
}

void Firmware::send(char letter, const Ports& data) {
    if (!silent_) {
        transmit_(std::array<std::uint8_t, MESSAGE_LENGTH>{static_cast<std::uint8_t>(letter),
                                                           data[0], data[1], endLetter(letter)});
    }
}

void Firmware::writeOutput(std::uint8_t pin, char value) {
    log_ += (log_.empty() ? "" : " ") + std::to_string(pin) + "=" + value;
    ++writeCount_;
    if (pin < OUTPUT_COUNT) {
        outputs_.at(pin) = value == '1';
        if (throughWires(inputs_) != inputs_) {
            setInputs(inputs_, true);
        }
    }
}

void Firmware::wire(std::size_t output, std::size_t input, bool notify) {
    wires_.at(output) = static_cast<std::uint16_t>(wires_.at(output) | (1U << input));
    if (throughWires(inputs_) != inputs_) {
        setInputs(inputs_, notify);
    }
}

Firmware::Ports Firmware::throughWires(const Ports& ports) const {
    constexpr unsigned PORT_BITS = 8;
    unsigned wired = 0;
    unsigned high = 0;
    for (std::size_t output = 0; output < OUTPUT_COUNT; ++output) {
        wired |= wires_.at(output);
        high |= outputs_.at(output) ? wires_.at(output) : 0U;
    }
    const unsigned given = ports[0] | (static_cast<unsigned>(ports[1]) << PORT_BITS);
    const unsigned levels = (given & ~wired) | high;
    return {static_cast<std::uint8_t>(levels), static_cast<std::uint8_t>(levels >> PORT_BITS)};
}
