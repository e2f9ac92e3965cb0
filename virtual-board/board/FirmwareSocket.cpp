#include "board/FirmwareSocket.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <iostream>
#include <system_error>

#include <sys/socket.h>
#include <unistd.h>

#include "protocol/UnixSocket.h"

namespace {

constexpr std::size_t BUFFER_LENGTH = 4096;

int connectOrThrow(const std::string& path) {
    const int descriptor = virtualusb::connectTo(path, SOCK_STREAM);
    if (descriptor < 0) {
        throw std::system_error(-descriptor, std::generic_category(), path);
    }
    return descriptor;
}

/// Returns whether everything was sent.
bool sendAll(int descriptor, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        bytes = bytes.subspan(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
    return true;
}

bool sendLine(int descriptor, const std::string& line) {
    const std::string text = line + "\n";
    return sendAll(descriptor, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

} // namespace

FirmwareSocket::FirmwareSocket(EventLoop& loop, const std::string& path, Hooks hooks)
    : loop_(loop), hooks_(std::move(hooks)), line_(connectOrThrow(path)) {
    try {
        control_ = connectOrThrow(path + ".control");
    } catch (...) {
        ::close(line_);
        throw;
    }
    // Hardly more than the bridge's own buffer: what waits here outlives a reset of the bridge.
    const int least = 1;
    ::setsockopt(line_, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    loop_.watch(line_, [this] { receiveBytes(); });
    loop_.watch(control_, [this] { receiveLines(); });
    sendLine(control_, "watch");
}

FirmwareSocket::~FirmwareSocket() {
    ::close(line_);
    ::close(control_);
}

void FirmwareSocket::send(Bytes bytes) {
    if (!sendAll(line_, bytes)) {
        lost();
    }
}

void FirmwareSocket::setInputs(const Ports& ports) {
    char text[sizeof "inputs ff ff"];
    std::snprintf(text, sizeof text, "inputs %02x %02x", ports[0], ports[1]);
    if (!sendLine(control_, text)) {
        lost();
    }
}

void FirmwareSocket::receiveBytes() {
    std::array<std::uint8_t, BUFFER_LENGTH> buffer;
    const ssize_t count = ::recv(line_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count > 0) {
        hooks_.fromFirmware(Bytes(buffer).first(static_cast<std::size_t>(count)));
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        lost();
    }
}

void FirmwareSocket::receiveLines() {
    std::array<char, BUFFER_LENGTH> buffer;
    const ssize_t count = ::recv(control_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count <= 0) {
        if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            lost();
        }
        return;
    }
    received_.append(buffer.data(), static_cast<std::size_t>(count));
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

void FirmwareSocket::lost() {
    std::cerr << "virtual-board: the firmware's process has ended\n";
    loop_.unwatch(line_);
    loop_.unwatch(control_);
    loop_.stop();
}
