#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <vector>

#include "board/Statistics.h"

/// The program on the board: takes the host's four-byte messages and answers them.
class Firmware {
public:
    using Bytes = std::span<const std::uint8_t>;
    static constexpr std::size_t OUTPUT_COUNT = 13;
    static constexpr std::size_t MESSAGE_LENGTH = 4;

    struct Write {
        std::uint8_t pin;
        char value; ///< as sent, normally '0' or '1'
    };

    /// `transmit` sends bytes to the host, `restart` is called for a restart message.
    Firmware(Statistics& statistics, std::function<void(Bytes)> transmit,
             std::function<void()> restart);

    /// A byte from the host. Bytes that belong to no message are skipped.
    void receive(std::uint8_t byte);

    /// Forgets outputs and half-received messages, as at power-on. Inputs and the log stay.
    void powerOn();

    /// Changes the inputs; `notify` sends the change message.
    void setInputs(std::uint8_t a, std::uint8_t b, bool notify);

    /// While silent, nothing is received or sent.
    void setSilent(bool silent) { isSilent = silent; }

    void setVersion(std::uint8_t major, std::uint8_t minor) { version = {major, minor}; }
    void setIgnored(char letter, bool ignored);

    std::uint8_t getInputsA() const { return inputs[0]; }
    std::uint8_t getInputsB() const { return inputs[1]; }
    bool getOutput(std::size_t pin) const { return outputs.at(pin); }
    const std::vector<Write>& getWrites() const { return writes; }
    void clearWrites() { writes.clear(); }

private:
    void handleMessage();
    bool holdsMessage() const;
    void send(char letter, const std::array<std::uint8_t, 2>& data);
    void writeOutput(std::uint8_t pin, char value);

    Statistics& statistics;
    std::function<void(Bytes)> transmit;
    std::function<void()> restart;
    std::array<std::uint8_t, MESSAGE_LENGTH> window{};
    std::array<std::uint8_t, 2> inputs{};
    std::array<std::uint8_t, 2> version{1, 0};
    std::array<bool, OUTPUT_COUNT> outputs{};
    std::vector<Write> writes;
    std::set<char> ignoredLetters;
    bool isSilent = false;
};
