#include "StreamModel.h"

#include <cctype>

namespace fuzz {

namespace {

constexpr int ATTEMPTS = 12;

} // namespace

/// The letter after a backslash that comes next, or 0.
char Events::eventAhead() const {
    const bool event = position_ + 1 < script_.size() && script_[position_] == '\\';
    return event ? script_[position_ + 1] : '\0';
}

Read Events::read() {
    while (eventAhead() == 'w' || eventAhead() == 'x') {
        position_ += 2;
    }
    if (position_ >= script_.size()) {
        return {Read::NOTHING};
    }
    const bool event = eventAhead() != '\0';
    position_ += event ? 2 : 1;
    const char letter = script_[position_ - 1];
    if (event && letter == 'n') {
        return {Read::NOTHING};
    }
    if (event && letter == 'f') {
        return {Read::FAILED};
    }
    if (event && letter == 'r') {
        return {Read::REFUSED};
    }
    return {Read::BYTE, static_cast<unsigned char>(letter)};
}

Write Events::write() {
    const char letter = eventAhead();
    if (letter != 'w' && letter != 'x') {
        return Write::Done;
    }
    position_ += 2;
    return letter == 'w' ? Write::Failed : Write::Refused;
}

bool StreamModel::perform(char operation) {
    received_.assign(3, '\0');
    if (operation == 'R') {
        return askForInputs();
    }
    return operation == 'V' ? askForVersion() : readMessage();
}

bool StreamModel::askForInputs() {
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        if (attempt % 4 == 0 && !send("R00r")) {
            available = false;
            return false;
        }
        available = receive();
        if (!available) {
            continue;
        }
        if (endsWithMessage('I') || endsWithMessage('R')) {
            takeInputs();
        }
        if (endsWithMessage('R')) {
            return true;
        }
    }
    return false;
}

bool StreamModel::askForVersion() {
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        if (attempt % 4 == 0 && !send("V00v")) {
            return false;
        }
        if (!receive()) {
            continue;
        }
        if (endsWithMessage('I')) {
            takeInputs();
        }
        if (endsWithMessage('V')) {
            firmwareVersion = "v" + std::to_string(fromEnd(3)) + "." + std::to_string(fromEnd(2));
            return true;
        }
    }
    return false;
}

bool StreamModel::readMessage() {
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        if (!receive()) {
            continue;
        }
        if (endsWithMessage('I')) {
            takeInputs();
        }
        if (endsWithMessage('I') || endsWithMessage('R')) {
            available = true;
            return true;
        }
    }
    available = false;
    return false;
}

bool StreamModel::send(const std::string& request) {
    const Write outcome = events_.write();
    if (outcome != Write::Refused) {
        sent += request;
    }
    return outcome == Write::Done;
}

bool StreamModel::receive() {
    const Read read = events_.read();
    if (read.kind == Read::BYTE) {
        received_.push_back(static_cast<char>(read.value));
    }
    return read.kind == Read::BYTE;
}

bool StreamModel::endsWithMessage(char letter) const {
    return fromEnd(4) == static_cast<unsigned char>(letter) &&
           fromEnd(1) == static_cast<unsigned char>(std::tolower(letter));
}

/// 1 for the last byte received.
unsigned char StreamModel::fromEnd(std::size_t distance) const {
    return static_cast<unsigned char>(received_[received_.size() - distance]);
}

void StreamModel::takeInputs() {
    portA = fromEnd(3);
    portB = fromEnd(2);
}

} // namespace fuzz
