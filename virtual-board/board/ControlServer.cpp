#include "board/ControlServer.h"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "board/Arguments.h"
#include "protocol/BusProtocol.h"
#include "protocol/UnixSocket.h"

namespace {

constexpr std::uint64_t DEFAULT_WAIT = 5000;
constexpr std::uint64_t MAX_WAIT = 3'600'000;

bool isNumber(const std::string& word) {
    return !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
}

/// Takes the trailing time-out off "NAME [OP] N [MS]".
std::chrono::milliseconds takeTimeout(Commands::Words& words) {
    const bool hasTimeout = words.size() >= 3 && isNumber(words[words.size() - 2]);
    if (!hasTimeout) {
        return std::chrono::milliseconds(DEFAULT_WAIT);
    }
    const std::chrono::milliseconds timeout(arguments::number(words.back(), 0, MAX_WAIT));
    words.pop_back();
    return timeout;
}

} // namespace

ControlServer::ControlServer(EventLoop& eventLoop, Commands& theCommands,
                             const std::string& directory)
    : loop(eventLoop), commands(theCommands), path(directory + "/" + virtualusb::CONTROL_SOCKET),
      listener(virtualusb::listenOn(path, SOCK_STREAM)) {
    if (listener < 0) {
        throw std::system_error(-listener, std::generic_category(), path);
    }
    loop.watch(listener, POLLIN, [this](short) { acceptSession(); });
}

ControlServer::~ControlServer() {
    for (const auto& [descriptor, session] : sessions) {
        ::close(descriptor);
    }
    ::close(listener);
    ::unlink(path.c_str());
}

void ControlServer::acceptSession() {
    const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor >= 0) {
        sessions.emplace(descriptor, Session{});
        loop.watch(descriptor, POLLIN, [this, descriptor](short) { receive(descriptor); });
    }
}

void ControlServer::receive(int descriptor) {
    std::array<char, 4096> buffer;
    const ssize_t received = ::recv(descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (received < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (received <= 0) {
        return end(descriptor);
    }
    sessions.at(descriptor).received.append(buffer.data(), static_cast<std::size_t>(received));
    runLines(descriptor);
}

void ControlServer::runLines(int descriptor) {
    Session& session = sessions.at(descriptor);
    while (!session.awaited) {
        const std::size_t length = session.received.find('\n');
        if (length == std::string::npos) {
            return;
        }
        const std::string line = session.received.substr(0, length);
        session.received.erase(0, length + 1);
        run(descriptor, line);
    }
}

void ControlServer::run(int descriptor, const std::string& line) {
    try {
        Commands::Words words = Commands::split(line);
        if (!words.empty() && words.front() == "wait") {
            words.erase(words.begin());
            return startWait(descriptor, std::move(words));
        }
        const std::string result = commands.run(words);
        answer(descriptor, result.empty() ? "ok" : "ok " + result);
    } catch (const std::invalid_argument& wrong) {
        answer(descriptor, std::string("error ") + wrong.what());
    }
}

void ControlServer::startWait(int descriptor, Commands::Words words) {
    const auto timeout = takeTimeout(words);
    const Condition condition(words);
    if (condition.holds(commands.snapshot())) {
        return answer(descriptor, "ok");
    }
    Session& session = sessions.at(descriptor);
    session.awaited = condition;
    session.timeout =
        loop.after(timeout, [this, descriptor] { endWait(descriptor, "error timed out"); });
}

void ControlServer::checkWaits() {
    std::vector<int> ready;
    for (const auto& [descriptor, session] : sessions) {
        if (session.awaited && session.awaited->holds(commands.snapshot())) {
            ready.push_back(descriptor);
        }
    }
    for (const int descriptor : ready) {
        endWait(descriptor, "ok");
    }
}

void ControlServer::endWait(int descriptor, const std::string& text) {
    Session& session = sessions.at(descriptor);
    loop.cancel(session.timeout);
    session.awaited.reset();
    answer(descriptor, text);
    runLines(descriptor);
}

void ControlServer::end(int descriptor) {
    loop.cancel(sessions.at(descriptor).timeout);
    loop.unwatch(descriptor);
    sessions.erase(descriptor);
    ::close(descriptor);
}

void ControlServer::answer(int descriptor, const std::string& text) {
    const std::string line = text + "\n";
    std::size_t sent = 0;
    while (sent < line.size()) {
        const ssize_t count =
            ::send(descriptor, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return;
        }
        sent += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
}
