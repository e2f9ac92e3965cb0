#include "board/FtdiChip.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr std::chrono::milliseconds DEFAULT_LATENCY{16};
constexpr std::uint8_t MODEM_STATUS = 0x01;
constexpr std::uint8_t LINE_STATUS = 0x60; ///< transmitter and its holding register empty
constexpr std::uint8_t DIRECTION_IN = 0x80;

enum VendorRequest : std::uint8_t {
    RESET = 0x00,
    SET_BAUDRATE = 0x03,
    POLL_MODEM_STATUS = 0x05,
    SET_LATENCY = 0x09,
    GET_LATENCY = 0x0A,
    READ_EEPROM = 0x90,
};

enum ResetValue : std::uint8_t { RESET_ALL = 0, PURGE_FROM_HOST = 1, PURGE_TO_HOST = 2 };

constexpr int STALL = -EPIPE;

} // namespace

FtdiChip::FtdiChip(Statistics& counters, Faults& failures)
    : statistics(counters), faults(failures), latency(DEFAULT_LATENCY), lastPacket(Clock::now()) {}

void FtdiChip::queue(Bytes bytes) {
    const std::size_t room = capacity - std::min(capacity, toHost.size());
    const std::size_t taken = std::min(room, bytes.size());
    toHost.insert(toHost.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(taken));
    statistics.count("overruns", bytes.size() - taken);
}

std::optional<FtdiChip::Packet> FtdiChip::nextPacket(Clock::time_point now, std::size_t dataLimit) {
    const std::size_t length = std::min({toHost.size(), PACKET_LENGTH - HEADER_LENGTH, dataLimit});
    const bool isShort = length < PACKET_LENGTH - HEADER_LENGTH;
    if (now < statusDue() && (length == 0 || (isShort && holdShortData))) {
        return std::nullopt;
    }
    lastPacket = now;
    statistics.count(length == 0 ? "status-packets" : "data-packets");
    statistics.count("bytes-delivered", length);
    Packet packet{MODEM_STATUS, LINE_STATUS};
    const auto end = toHost.begin() + static_cast<std::ptrdiff_t>(length);
    packet.insert(packet.end(), toHost.begin(), end);
    toHost.erase(toHost.begin(), end);
    return packet;
}

FtdiChip::ControlAnswer FtdiChip::vendorRequest(const Setup& setup) {
    statistics.count("vendor-requests");
    switch (setup.request) {
    case RESET:
        return resetRequest(setup.value);
    case SET_BAUDRATE:
        statistics.count("baudrates");
        return {faults.shouldFail("baudrate") ? STALL : 0, {}};
    case POLL_MODEM_STATUS:
        return {0, {MODEM_STATUS, LINE_STATUS}};
    case SET_LATENCY:
        latency = std::chrono::milliseconds(setup.value & 0xFFU);
        return {0, {}};
    case GET_LATENCY:
        return {0, {static_cast<std::uint8_t>(latency.count())}};
    case READ_EEPROM:
        return {0, {0xFF, 0xFF}};
    default:
        return {(setup.requestType & DIRECTION_IN) != 0 ? STALL : 0, {}};
    }
}

FtdiChip::ControlAnswer FtdiChip::resetRequest(std::uint16_t value) {
    const bool isPurge = value != RESET_ALL;
    statistics.count(isPurge ? "purges" : "resets");
    if (faults.shouldFail(isPurge ? "purge" : "reset")) {
        return {STALL, {}};
    }
    if (value != PURGE_FROM_HOST) {
        discardToHost();
    }
    return {0, {}};
}

void FtdiChip::discardToHost() {
    statistics.count("purged-bytes", toHost.size());
    toHost.clear();
}

void FtdiChip::powerOn() {
    toHost.clear();
    latency = DEFAULT_LATENCY;
    lastPacket = Clock::now();
}
