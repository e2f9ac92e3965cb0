#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "board/EventLoop.h"

/// The real firmware on a simulated microcontroller, which is a process of its own: its serial
/// line, its pins, and the bridge's RESET#. When that process goes away, the functions here, and
/// those that it has the loop call, throw std::runtime_error.
class FirmwareSocket {
public:
    using Bytes = std::span<const std::uint8_t>;
    using Ports = std::array<std::uint8_t, 2>;

    struct Hooks {
        std::function<void(Bytes)> fromFirmware;   ///< serial bytes for the bridge
        std::function<void(bool)> holdBridgeReset; ///< RESET# is low, or is released again
    };

    /// Connects to the serial line at `path` and to the commands at `path`.control; throws
    /// std::system_error when it cannot, which ends the process.
    FirmwareSocket(EventLoop& loop, const std::string& path, Hooks hooks);
    FirmwareSocket(const FirmwareSocket&) = delete;
    FirmwareSocket& operator=(const FirmwareSocket&) = delete;
    ~FirmwareSocket();

    /// Sends serial bytes; waits while the line has more to carry than a bridge keeps.
    void send(Bytes bytes);

    void setInputs(const Ports& ports);

    /// Whether the firmware drives device pin 0 to 12 high.
    bool getOutput(std::size_t pin) const { return outputs_.at(pin) == '1'; }

private:
    void receiveBytes();
    void receiveLines();
    void handleLine(const std::string& line);

    Hooks hooks_;
    int line_;
    int control_;
    std::string received_;
    std::string outputs_ = "zzzzzzzzzzzzz";
    bool isBridgeHeld_ = false;
};
