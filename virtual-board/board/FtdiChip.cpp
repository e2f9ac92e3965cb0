#include "board/FtdiChip.h"

#include <algorithm>

namespace {

constexpr std::chrono::milliseconds LATENCY{16};
constexpr std::uint8_t MODEM_STATUS = 0x01;
constexpr std::uint8_t LINE_STATUS = 0x60; ///< transmitter and its holding register empty

constexpr std::uint8_t RESET = 0x00;

enum ResetValue : std::uint8_t { RESET_ALL = 0, PURGE_FROM_HOST = 1, PURGE_TO_HOST = 2 };

} // namespace

void FtdiChip::queue(Bytes bytes) {
    const std::size_t room = capacity_ - std::min(capacity_, toHost_.size());
    const Bytes taken = bytes.first(std::min(room, bytes.size()));
    toHost_.insert(toHost_.end(), taken.begin(), taken.end());
    statistics_["overruns"] += bytes.size() - taken.size();
}

FtdiChip::Clock::time_point FtdiChip::statusDue() const {
    return lastPacket_ + LATENCY;
}

std::optional<FtdiChip::Packet> FtdiChip::nextPacket(std::size_t dataLimit) {
    const auto now = Clock::now();
    const std::size_t length = std::min({toHost_.size(), PACKET_LENGTH - HEADER_LENGTH, dataLimit});
    if (length == 0 && now < statusDue()) {
        return std::nullopt;
    }
    lastPacket_ = now;
    ++statistics_[length == 0 ? "status-packets" : "data-packets"];
    Packet packet{MODEM_STATUS, LINE_STATUS};
    const auto end = toHost_.begin() + static_cast<std::ptrdiff_t>(length);
    packet.insert(packet.end(), toHost_.begin(), end);
    toHost_.erase(toHost_.begin(), end);
    return packet;
}

bool FtdiChip::vendorRequest(std::uint8_t request, std::uint16_t value) {
    if (request != RESET) {
        return true;
    }
    if (value != RESET_ALL && faults_.shouldFail("purge")) {
        return false;
    }
    if (value != PURGE_FROM_HOST) {
        statistics_["purged-bytes"] += toHost_.size();
        toHost_.clear();
    }
    return true;
}

void FtdiChip::powerOn() {
    toHost_.clear();
    lastPacket_ = Clock::now();
}
