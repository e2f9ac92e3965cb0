#include "board/FirmwareSocket.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include <sys/socket.h>
#include <unistd.h>

#include "protocol/UnixSocket.h"

namespace {

constexpr std::size_t BUFFER_LENGTH = 4096;

[[noreturn]] void lost() {
    throw std::runtime_error("the firmware's process has ended");
}

void sendOrThrow(int descriptor, std::string_view bytes) {
    if (!virtualusb::sendAll(descriptor, bytes)) {
        lost();
    }
}

/// What there is to read; nothing when a signal came first.
std::span<const std::uint8_t> receive(int descriptor, std::span<std::uint8_t> buffer) {
    const ssize_t count = ::recv(descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        lost();
    }
    return buffer.first(count < 0 ? 0 : static_cast<std::size_t>(count));
}

} // namespace

FirmwareSocket::FirmwareSocket(EventLoop& loop, const std::string& path, Hooks hooks)
    : hooks_(std::move(hooks)), line_(virtualusb::connectTo(path, SOCK_STREAM)),
      control_(virtualusb::connectTo(path + ".control", SOCK_STREAM)) {
    // Hardly more than the bridge's own buffer: what waits here outlives a reset of the bridge.
    const int least = 1;
    ::setsockopt(line_, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    loop.watch(line_, [this] { receiveBytes(); });
    loop.watch(control_, [this] { receiveLines(); });
    sendOrThrow(control_, "watch\n");
}

FirmwareSocket::~FirmwareSocket() {
    ::close(line_);
    ::close(control_);
}

void FirmwareSocket::send(Bytes bytes) {
    sendOrThrow(line_, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

void FirmwareSocket::setInputs(const Ports& ports) {
    char text[sizeof "inputs ff ff\n"];
    std::snprintf(text, sizeof text, "inputs %02x %02x\n", ports[0], ports[1]);
    sendOrThrow(control_, text);
}

void FirmwareSocket::receiveBytes() {
    std::array<std::uint8_t, BUFFER_LENGTH> buffer;
    hooks_.fromFirmware(receive(line_, buffer));
}

void FirmwareSocket::receiveLines() {
    std::array<std::uint8_t, BUFFER_LENGTH> buffer;
    const auto text = receive(control_, buffer);
    received_.append(text.begin(), text.end());
    for (auto end = received_.find('\n'); end != std::string::npos; end = received_.find('\n')) {
        const std::string line = received_.substr(0, end);
        received_.erase(0, end + 1);
        handleLine(line);
    }
}

/// Notices begin with a name; the other lines are answers to commands.
void FirmwareSocket::handleLine(const std::string& line) {
    const std::string outputs = "outputs ";
    if (line.starts_with(outputs) && line.size() == outputs.size() + outputs_.size()) {
        outputs_ = line.substr(outputs.size());
    } else if (line.starts_with("bridge-reset ")) {
        const bool isHeld = line.ends_with(" low");
        if (isHeld != isBridgeHeld_) {
            isBridgeHeld_ = isHeld;
            hooks_.holdBridgeReset(isHeld);
        }
    }
}
