#include "board/Board.h"

Board::Board(EventLoop& eventLoop)
    : loop(eventLoop), chip(statistics, faults),
      line(
          loop, [this](SerialLine::Bytes bytes) { chip.queue(bytes); },
          [this] { device.service(); }),
      firmware(
          statistics, [this](Firmware::Bytes bytes) { line.send(bytes); },
          [this] { restartRequested(); }),
      device(loop, statistics, faults, chip,
             {[this](UsbDevice::Bytes bytes) {
                  for (const std::uint8_t byte : bytes) {
                      firmware.receive(byte);
                  }
              },
              [this] { flood.topUp(chip.getQueued()); },
              [this] {
                  line.cut();
                  firmware.powerOn();
              }}),
      flood(loop, firmware, [this] { device.service(); }) {}

void Board::restartRequested() {
    if (restart.mode == RestartMode::Ignore) {
        return;
    }
    // Never at once: the message's own transfer still has to end well.
    loop.cancel(restartTimer);
    restartTimer = loop.after(restart.delay, [this] { startRestart(); });
}

void Board::startRestart() {
    statistics.count("restarts");
    if (restart.mode == RestartMode::Drop) {
        device.unplug();
    } else {
        firmware.powerOn();
        firmware.setSilent(true);
    }
    restartTimer = loop.after(restart.away, [this] { finishRestart(); });
}

void Board::finishRestart() {
    device.plug();
    firmware.setSilent(false);
}

void Board::unplug() {
    loop.cancel(restartTimer);
    device.unplug();
}

void Board::plug() {
    loop.cancel(restartTimer);
    device.plug();
}

void Board::setSpeed(std::optional<std::uint32_t> bytesPerSecond) {
    line.setSpeed(bytesPerSecond);
    device.setSpeed(bytesPerSecond);
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

std::map<std::string, std::uint64_t> Board::snapshot() const {
    std::map<std::string, std::uint64_t> result(statistics.all());
    result["plugged"] = device.isPlugged() ? 1 : 0;
    result["claimed"] = device.isClaimed() ? 1 : 0;
    result["pending-reads"] = device.getPendingReads();
    result["pending-writes"] = device.getPendingWrites();
    result["queued"] = chip.getQueued();
    result["output-writes"] = firmware.getWrites().size();
    for (std::size_t pin = 0; pin < Firmware::OUTPUT_COUNT; ++pin) {
        result["output-" + std::to_string(pin)] = firmware.getOutput(pin) ? 1 : 0;
    }
    return result;
}
