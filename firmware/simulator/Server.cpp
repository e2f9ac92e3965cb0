#include "Server.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int TURN_MS = 1;
constexpr auto LONGEST_STEP = std::chrono::milliseconds(5);
constexpr auto FARTHEST_BEHIND = std::chrono::seconds(2);
constexpr std::size_t BUFFER_LENGTH = 4096;
constexpr std::size_t MOST_TO_RECEIVE = 128; ///< as a bridge keeps; beyond, the host waits
constexpr std::size_t LONGEST_LINE = 1024UL * 1024;

/// The path appears only once it can be connected to.
int listenOn(const std::string& path) {
    const std::string unready = path + ".new";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (unready.size() >= sizeof address.sun_path) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    }
    std::memcpy(address.sun_path, unready.c_str(), unready.size() + 1);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    constexpr int BACKLOG = 8;
    if (descriptor < 0 ||
        ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(descriptor, BACKLOG) != 0 || std::rename(unready.c_str(), path.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return descriptor;
}

std::string controlPath(const std::string& path) {
    return path + ".control";
}

} // namespace

Server::Server(Microcontroller& microcontroller, std::string socketPath, Time howTimePasses)
    : board_(microcontroller), commands_(microcontroller), path_(std::move(socketPath)),
      time_(howTimePasses), lineListener_(listenOn(path_)),
      controlListener_(listenOn(controlPath(path_))) {}

Server::~Server() {
    for (const auto& [descriptor, session] : sessions_) {
        ::close(descriptor);
    }
    if (line_ >= 0) {
        ::close(line_);
    }
    ::close(lineListener_);
    ::close(controlListener_);
    ::unlink(path_.c_str());
    ::unlink(controlPath(path_).c_str());
}

void Server::run(int lifeline) {
    last_ = Clock::now();
    while (isRunning_) {
        serveOnce(lifeline);
        if (time_ == Time::Real) {
            letTimePass();
        }
    }
}

void Server::serveOnce(int lifeline) {
    const bool takesBytes = time_ == Time::Real && board_.bytesToReceive() < MOST_TO_RECEIVE;
    std::vector<pollfd> watched{{lifeline, POLLIN, 0},
                                {controlListener_, POLLIN, 0},
                                {lineListener_, POLLIN, 0},
                                {takesBytes ? line_ : -1, POLLIN, 0}};
    for (const auto& [descriptor, session] : sessions_) {
        watched.push_back({descriptor, POLLIN, 0});
    }
    ::poll(watched.data(), watched.size(), time_ == Time::Real ? TURN_MS : -1);
    for (std::size_t index = 4; index < watched.size(); ++index) {
        if (watched[index].revents != 0) {
            receiveCommands(watched[index].fd);
        }
    }
    if (watched[3].revents != 0) {
        receiveLine();
    }
    if (watched[2].revents != 0) {
        acceptLine();
    }
    if (watched[1].revents != 0) {
        acceptSession();
    }
    isRunning_ = isRunning_ && watched[0].revents == 0;
}

void Server::acceptLine() {
    const int descriptor = ::accept4(lineListener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0) {
        return;
    }
    if (line_ >= 0) {
        ::close(line_);
    }
    line_ = descriptor;
}

void Server::receiveLine() {
    std::array<std::uint8_t, MOST_TO_RECEIVE> buffer;
    const std::size_t room = MOST_TO_RECEIVE - board_.bytesToReceive();
    const ssize_t count = ::recv(line_, buffer.data(), room, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count <= 0) {
        ::close(line_);
        line_ = -1;
        return;
    }
    std::vector<Microcontroller::ReceivedByte> bytes;
    std::for_each(buffer.begin(), buffer.begin() + count, [&](std::uint8_t byte) {
        bytes.push_back({byte, false});
    });
    board_.receive(bytes);
}

void Server::acceptSession() {
    const int descriptor = ::accept4(controlListener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor >= 0) {
        sessions_.emplace(descriptor, Session{});
    }
}

void Server::receiveCommands(int descriptor) {
    std::array<char, BUFFER_LENGTH> buffer;
    const ssize_t count = ::recv(descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    Session& session = sessions_.at(descriptor);
    if (count <= 0 || session.received.size() > LONGEST_LINE) {
        return end(descriptor);
    }
    session.received.append(buffer.data(), static_cast<std::size_t>(count));
    for (auto length = session.received.find('\n'); length != std::string::npos && isRunning_;
         length = session.received.find('\n')) {
        const std::string command = session.received.substr(0, length);
        session.received.erase(0, length + 1);
        write(descriptor, answer(session, command) + "\n");
    }
}

std::string Server::answer(Session& session, const std::string& command) {
    if (command == "quit") {
        isRunning_ = false;
        return "ok";
    }
    const bool isForStepped =
        command.starts_with("run") || command == "sent" || command == "events";
    if ((time_ == Time::Real && isForStepped) || (time_ == Time::Stepped && command == "watch")) {
        return "error not in this mode";
    }
    if (command == "watch") {
        session.isWatching = true;
        return "ok";
    }
    try {
        const std::string text = commands_.run(command);
        return text.empty() ? "ok" : "ok " + text;
    } catch (const std::invalid_argument& wrong) {
        return std::string("error ") + wrong.what();
    }
}

void Server::end(int descriptor) {
    sessions_.erase(descriptor);
    ::close(descriptor);
}

/// Catches up with the clock in small steps, so that everybody sees each of them. Only a machine
/// that falls far behind lets the board's time pass more slowly.
void Server::letTimePass() {
    const auto now = Clock::now();
    last_ = std::max(last_, now - FARTHEST_BEHIND);
    while (last_ < now) {
        const auto step = std::min<Clock::duration>(now - last_, LONGEST_STEP);
        last_ += step;
        const double seconds = std::chrono::duration<double>(step).count();
        board_.run(static_cast<Microcontroller::Cycle>(seconds * Microcontroller::FREQUENCY));
        sendBytes();
        tellWatchers();
    }
}

void Server::sendBytes() {
    std::string bytes;
    for (const auto& [start, value] : board_.takeSent()) {
        bytes += static_cast<char>(value);
    }
    board_.takeEvents();
    if (line_ >= 0 && !bytes.empty()) {
        // There is no flow control: a host that does not read loses bytes.
        ::send(line_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
}

void Server::tellWatchers() {
    const std::string outputs = board_.outputs();
    const std::string bridgeReset = board_.bridgeReset();
    for (auto& [descriptor, session] : sessions_) {
        if (!session.isWatching) {
            continue;
        }
        if (session.lastOutputs != outputs) {
            session.lastOutputs = outputs;
            write(descriptor, "outputs " + outputs + "\n");
        }
        if (session.lastBridgeReset != bridgeReset) {
            session.lastBridgeReset = bridgeReset;
            write(descriptor, "bridge-reset " + bridgeReset + "\n");
        }
    }
}

void Server::write(int descriptor, const std::string& text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t count =
            ::send(descriptor, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return;
        }
        sent += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
}
