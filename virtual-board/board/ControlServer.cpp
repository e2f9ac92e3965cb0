#include "board/ControlServer.h"

#include <array>
#include <cerrno>
#include <limits>
#include <stdexcept>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include "protocol/BusProtocol.h"
#include "protocol/UnixSocket.h"

namespace {

constexpr std::chrono::milliseconds DEFAULT_WAIT{5000};
constexpr std::uint64_t ANY = std::numeric_limits<std::uint64_t>::max();

bool isComparison(const std::string& word) {
    return word == "=" || word == ">=" || word == "<=";
}

} // namespace

ControlServer::ControlServer(EventLoop& loop, Commands& commands, const std::string& directory)
    : loop_(loop), commands_(commands),
      listener_(loop, directory + "/" + virtualusb::CONTROL_SOCKET, SOCK_STREAM,
                [this](int descriptor) { accept(descriptor); }) {}

ControlServer::~ControlServer() {
    for (const auto& [descriptor, session] : sessions_) {
        ::close(descriptor);
    }
}

void ControlServer::accept(int descriptor) {
    sessions_.emplace(descriptor, Session{});
    loop_.watch(descriptor, [this, descriptor] { receive(descriptor); });
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
    sessions_.at(descriptor).received.append(buffer.data(), static_cast<std::size_t>(received));
    runLines(descriptor);
}

void ControlServer::runLines(int descriptor) {
    Session& session = sessions_.at(descriptor);
    for (auto length = session.received.find('\n');
         length != std::string::npos && session.awaited == nullptr;
         length = session.received.find('\n')) {
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
        const std::string result = commands_.run(words);
        answer(descriptor, result.empty() ? "ok" : "ok " + result);
    } catch (const std::invalid_argument& wrong) {
        answer(descriptor, std::string("error ") + wrong.what());
    }
}

/// `words` are NAME [OP] N [MS].
void ControlServer::startWait(int descriptor, Commands::Words words) {
    if (words.size() > 1 && !isComparison(words[1])) {
        words.insert(words.begin() + 1, ">=");
    }
    if (words.size() < 3 || words.size() > 4) {
        throw std::invalid_argument("NAME [=|>=|<=] N [MS] expected");
    }
    std::chrono::milliseconds limit = DEFAULT_WAIT;
    if (words.size() == 4) {
        limit = Commands::milliseconds(words[3]);
    }
    Session& session = sessions_.at(descriptor);
    session.awaited = condition(words);
    session.timeout =
        loop_.after(limit, [this, descriptor] { endWait(descriptor, "error timed out"); });
}

ControlServer::Condition ControlServer::condition(const Commands::Words& words) {
    return [name = words[0], comparison = words[1],
            wanted = Commands::number(words[2], 0, ANY)](const Statistics& values) {
        const auto entry = values.find(name);
        const std::uint64_t value = entry == values.end() ? 0 : entry->second;
        return (value == wanted) || (comparison == ">=" && value > wanted) ||
               (comparison == "<=" && value < wanted);
    };
}

void ControlServer::checkWaits() {
    std::vector<int> ready;
    for (const auto& [descriptor, session] : sessions_) {
        if (session.awaited != nullptr && session.awaited(commands_.snapshot())) {
            ready.push_back(descriptor);
        }
    }
    for (const int descriptor : ready) {
        endWait(descriptor, "ok");
    }
}

void ControlServer::endWait(int descriptor, const std::string& text) {
    Session& session = sessions_.at(descriptor);
    loop_.cancel(session.timeout);
    session.awaited = nullptr;
    answer(descriptor, text);
    runLines(descriptor);
}

void ControlServer::end(int descriptor) {
    loop_.cancel(sessions_.at(descriptor).timeout);
    loop_.unwatch(descriptor);
    sessions_.erase(descriptor);
    ::close(descriptor);
}

void ControlServer::answer(int descriptor, const std::string& text) {
    virtualusb::sendAll(descriptor, text + "\n");
}
