#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// The command language written down a second time, as plainly as possible and sharing nothing
/// with the server, so that the two can be compared.
namespace fuzz {

struct Outcome {
    enum Kind { ANSWER, COMMAND_ERROR, UNAVAILABLE };

    Kind kind;
    std::string text;
};

/// Sixteen simulated pins behind commands of three characters.
class SimulatedModel {
public:
    Outcome handle(const std::string& command);

private:
    struct Pin {
        int value = 0;
        bool input = false;
    };

    std::uint64_t mask(bool (*wanted)(const Pin&)) const;

    std::array<Pin, 16> pins_;
};

/// The board's pins behind commands of four characters.
class BoardModel {
public:
    Outcome handle(const std::string& command);

    bool available = true;
    bool writable = true;
    unsigned char portA = 0;
    unsigned char portB = 0;
    unsigned char portC = 0;
    unsigned char portD = 0;
    std::string firmwareVersion = "Unknown";

    /// What the board was told: the number of the output and its level.
    std::vector<std::pair<int, bool>> written;

private:
    bool write(int pin, bool level);
    bool isHigh(int pin) const;
    std::uint64_t allPins() const;
};

/// What a client gets for an outcome that leaves the connection open.
std::string bytesFor(const Outcome& outcome);

} // namespace fuzz
