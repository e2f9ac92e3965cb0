#pragma once

#include <chrono>

#include "board/EventLoop.h"
#include "board/Faults.h"
#include "board/Firmware.h"
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
        std::chrono::milliseconds delay{0};   ///< between the message and its effect
    };

    explicit Board(EventLoop& loop);

    /// Pulls the board out by hand: a restart under way does not bring it back.
    void unplug();
    void plug();

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

    EventLoop::TimerId restartTimer_ = 0;
};
