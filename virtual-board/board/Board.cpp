#include "board/Board.h"

#include <utility>

Board::Board(EventLoop& events)
    : loop(events), chip(statistics, faults), firmware(
                                                  statistics,
                                                  [this](Firmware::Bytes bytes) {
                                                      if (hasModel()) {
                                                          chip.queue(bytes);
                                                      }
                                                  },
                                                  [this] {
                                                      if (hasModel()) {
                                                          startRestart();
                                                      }
                                                  }),
      device(loop, statistics, faults, chip,
             {[this](UsbDevice::Bytes bytes) {
                  firmware.receive(bytes);
                  if (microcontroller_) {
                      microcontroller_->send(bytes);
                  }
              },
              [this] { flood.topUp(chip.getQueued()); }, [this] { firmware.powerOn(); }}),
      flood(loop, firmware, [this] { device.service(); }) {}

void Board::connectFirmware(const std::string& path) {
    microcontroller_ = std::make_unique<FirmwareSocket>(
        loop, path,
        FirmwareSocket::Hooks{[this](FirmwareSocket::Bytes bytes) {
                                  if (device.isPlugged()) {
                                      send(bytes);
                                  }
                              },
                              [this](bool isLow) { holdBridgeReset(isLow); }});
}

/// The other modes are those of a board whose RESET# is not wired.
void Board::holdBridgeReset(bool isLow) {
    statistics["restarts"] += isLow ? 1 : 0;
    if (isLow && restart.mode == RestartMode::Drop) {
        returnsFromReset_ = device.isPlugged();
        device.unplug();
    } else if (!isLow && std::exchange(returnsFromReset_, false)) {
        device.plug();
    }
}

void Board::setInputs(const Firmware::Ports& ports, bool notify) {
    firmware.setInputs(ports, notify && hasModel());
    if (microcontroller_) {
        microcontroller_->setInputs(ports);
    }
}

bool Board::getOutput(std::size_t pin) const {
    return hasModel() ? firmware.getOutput(pin) : microcontroller_->getOutput(pin);
}

void Board::startRestart() {
    if (restart.mode == RestartMode::Ignore) {
        return;
    }
    // Never at once: the message's own transfer still has to end well.
    loop.cancel(restartTimer_);
    restartTimer_ = loop.after({}, [this] {
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
    returnsFromReset_ = false;
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
    result["pending-reads"] = device.getPendingReads();
    result["pending-writes"] = device.getPendingWrites();
    result["queued"] = chip.getQueued();
    result["output-writes"] = firmware.getWriteCount();
    for (std::size_t pin = 0; pin < Firmware::OUTPUT_COUNT; ++pin) {
        result["output-" + std::to_string(pin)] = getOutput(pin) ? 1 : 0;
    }
    return result;
}
