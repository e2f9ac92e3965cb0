#include "board/Board.h"

Board::Board(EventLoop& events)
    : loop(events), chip(statistics, faults),
      firmware(
          statistics, [this](Firmware::Bytes bytes) { chip.queue(bytes); },
          [this] { startRestart(); }),
      device(loop, statistics, faults, chip,
             {[this](UsbDevice::Bytes bytes) { firmware.receive(bytes); },
              [this] { flood.topUp(chip.getQueued()); }, [this] { firmware.powerOn(); }}),
      flood(loop, firmware, [this] { device.service(); }) {}

void Board::startRestart() {
    if (restart.mode == RestartMode::Ignore) {
        return;
    }
    // Never at once: the message's own transfer still has to end well.
    loop.cancel(restartTimer_);
    restartTimer_ = loop.after(restart.delay, [this] {
        ++statistics["restarts"];
        if (restart.mode == RestartMode::Drop) {
            device.unplug();
        } else {
            firmware.powerOn();
            firmware.setSilent(true);
        }
        restartTimer_ = loop.after(restart.away, [this] { finishRestart(); });
    });
}

void Board::finishRestart() {
    device.plug();
    firmware.setSilent(false);
}

void Board::unplug() {
    loop.cancel(restartTimer_);
    device.unplug();
}

void Board::plug() {
    loop.cancel(restartTimer_);
    device.plug();
}

void Board::send(FtdiChip::Bytes bytes) {
    chip.queue(bytes);
    device.service();
}

void Board::sendAndUnplug(FtdiChip::Bytes bytes) {
    chip.queue(bytes);
    faults.deliveredLeft = chip.getQueued();
    device.service();
}

Statistics Board::snapshot() const {
    Statistics result(statistics);
    result["plugged"] = device.isPlugged() ? 1 : 0;
    result["claimed"] = device.isClaimed() ? 1 : 0;
    result["pending-reads"] = device.getPendingReads();
    result["pending-writes"] = device.getPendingWrites();
    result["queued"] = chip.getQueued();
    result["output-writes"] = firmware.getWriteCount();
    for (std::size_t pin = 0; pin < Firmware::OUTPUT_COUNT; ++pin) {
        result["output-" + std::to_string(pin)] = firmware.getOutput(pin) ? 1 : 0;
    }
    return result;
}
