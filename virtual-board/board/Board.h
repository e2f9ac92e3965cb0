#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "board/EventLoop.h"
#include "board/Faults.h"
#include "board/Firmware.h"
#include "board/Flood.h"
#include "board/FtdiChip.h"
#include "board/SerialLine.h"
#include "board/Statistics.h"
#include "board/UsbDevice.h"

/// The whole board: firmware behind the bridge behind the bus, and what happens on a restart.
class Board {
public:
    enum class RestartMode { Drop, Stay, Ignore };

    struct Restart {
        RestartMode mode = RestartMode::Drop;
        std::chrono::milliseconds away{1000}; ///< off the bus, or silent while it stays
        std::chrono::milliseconds delay{0};   ///< between the message and its effect
    };

    explicit Board(EventLoop& loop);

    void setRestart(const Restart& newRestart) { restart = newRestart; }

    /// Pulls the board out by hand: a restart under way does not bring it back.
    void unplug();
    void plug();

    /// Bytes a second that the serial line carries each way, nothing for no limit.
    void setSpeed(std::optional<std::uint32_t> bytesPerSecond);

    /// Sends bytes to the host as they are, past the serial line's speed.
    void send(FtdiChip::Bytes bytes);

    /// Sends bytes and pulls the board out once the host has all that was sent so far.
    void sendAndUnplug(FtdiChip::Bytes bytes);

    /// Counters and the present state, by name.
    std::map<std::string, std::uint64_t> snapshot() const;

    EventLoop& getLoop() { return loop; }
    Statistics& getStatistics() { return statistics; }
    Faults& getFaults() { return faults; }
    Firmware& getFirmware() { return firmware; }
    FtdiChip& getChip() { return chip; }
    UsbDevice& getDevice() { return device; }
    Flood& getFlood() { return flood; }

private:
    void restartRequested();
    void startRestart();
    void finishRestart();

    EventLoop& loop;
    Statistics statistics;
    Faults faults;
    FtdiChip chip;
    SerialLine line;
    Firmware firmware;
    UsbDevice device;
    Flood flood;
    Restart restart;
    EventLoop::TimerId restartTimer = 0;
};
