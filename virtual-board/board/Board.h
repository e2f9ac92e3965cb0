#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "board/EventLoop.h"
#include "board/Faults.h"
#include "board/Firmware.h"
#include "board/FirmwareSocket.h"
#include "board/Flood.h"
#include "board/FtdiChip.h"
#include "board/Statistics.h"
#include "board/UsbDevice.h"

/// The whole board: firmware behind the bridge behind the bus, and what happens on a restart.
class Board {
public:
    enum class RestartMode { Drop, Stay, Ignore };

    struct Restart {
        RestartMode mode = RestartMode::Drop;
        std::chrono::milliseconds away{1000}; ///< off the bus, or silent while it stays
    };

    explicit Board(EventLoop& loop);

    /// Puts a simulated microcontroller behind the bridge. The built-in model then only listens to
    /// the host, for the counters and the log; throws std::system_error.
    void connectFirmware(const std::string& path);
    bool hasModel() const { return microcontroller_ == nullptr; }

    /// Pulls the board out by hand: a restart under way does not bring it back.
    void unplug();
    void plug();

    /// Changes the inputs; `notify` makes the model report that.
    void setInputs(const Firmware::Ports& ports, bool notify);
    bool getOutput(std::size_t pin) const;

    /// Sends bytes to the host as they are.
    void send(FtdiChip::Bytes bytes);

    /// Sends bytes and pulls the board out once the host has all that was sent so far.
    void sendAndUnplug(FtdiChip::Bytes bytes);

    /// Counters and the present state, by name.
    Statistics snapshot() const;

    /// The parts, for whoever steers them.
    EventLoop& loop;
    Statistics statistics;
    Faults faults;
    FtdiChip chip;
    Firmware firmware;
    UsbDevice device;
    Flood flood;
    Restart restart;

private:
    void startRestart();
    void finishRestart();

    void holdBridgeReset(bool isLow);

    EventLoop::TimerId restartTimer_ = 0;
    std::unique_ptr<FirmwareSocket> microcontroller_;
    bool returnsFromReset_ = false; ///< the bridge was on the bus when RESET# went low
};
