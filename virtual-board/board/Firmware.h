#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <string>

#include "board/Statistics.h"

/// The program on the board: takes the host's four-byte messages and answers them.
class Firmware {
public:
    using Bytes = std::span<const std::uint8_t>;
    using Ports = std::array<std::uint8_t, 2>;
    static constexpr std::size_t OUTPUT_COUNT = 13;
    static constexpr std::size_t INPUT_COUNT = 16;
    static constexpr std::size_t MESSAGE_LENGTH = 4;

    /// `transmit` sends bytes to the host, `restart` is called for a restart message.
    Firmware(Statistics& statistics, std::function<void(Bytes)> transmit,
             std::function<void()> restart);

    /// Bytes from the host. Those that belong to no message are skipped.
    void receive(Bytes bytes);

    /// Forgets outputs and half-received messages, as at power-on. Inputs and the log stay.
    void powerOn();

    /// Changes the inputs; `notify` sends the change message.
    void setInputs(const Ports& ports, bool notify);

    /// Joins an output to an input, 0 for bit 0 of port A: from now on it has the output's level.
    /// An input with several is high when one of them is. `notify` as for setInputs().
    void wire(std::size_t output, std::size_t input, bool notify);

    /// Takes all wires away; the inputs keep their levels.
    void unwire() { wires_.fill(0); }

    /// While silent, nothing is received or sent.
    void setSilent(bool silent) { silent_ = silent; }

    /// Major and minor number.
    void setVersion(const Ports& version) { version_ = version; }

    void ignore(char letter) { ignoredLetters_.insert(letter); }
    void heed(char letter) { ignoredLetters_.erase(letter); }

    const Ports& getInputs() const { return inputs_; }
    bool getOutput(std::size_t pin) const { return outputs_.at(pin); }
    std::size_t getWriteCount() const { return writeCount_; }

    /// The pin writes in order, as "0=1 12=0".
    const std::string& getLog() const { return log_; }
    void clearLog();

private:
    void handleMessage();
    void send(char letter, const Ports& data);
    void writeOutput(std::uint8_t pin, char value);

    /// The levels with those of wired inputs in place of the given ones.
    Ports throughWires(const Ports& ports) const;

    Statistics& statistics_;
    std::function<void(Bytes)> transmit_;
    std::function<void()> restart_;
    std::array<std::uint8_t, MESSAGE_LENGTH> window_{};
    Ports inputs_{};
    Ports version_{1, 0};
    std::array<bool, OUTPUT_COUNT> outputs_{};
    std::array<std::uint16_t, OUTPUT_COUNT> wires_{}; ///< the inputs of each output
    std::string log_;
    std::size_t writeCount_ = 0;
    std::set<char> ignoredLetters_;
    bool silent_ = false;
};
