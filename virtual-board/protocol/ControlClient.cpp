#include "protocol/ControlClient.h"

#include <array>
#include <cerrno>
#include <system_error>

#include <sys/socket.h>
#include <unistd.h>

#include "protocol/BusProtocol.h"
#include "protocol/UnixSocket.h"

namespace {

std::string readLine(int descriptor) {
    std::string result;
    std::array<char, 4096> buffer;
    while (result.empty() || result.back() != '\n') {
        const ssize_t received = ::recv(descriptor, buffer.data(), buffer.size(), 0);
        if (received < 0 && errno == EINTR) {
            continue;
        }
        if (received <= 0) {
            return {};
        }
        result.append(buffer.data(), static_cast<std::size_t>(received));
    }
    result.pop_back();
    return result;
}

} // namespace

std::string sendControlCommand(const std::string& directory, const std::string& command) {
    const std::string path = directory + "/" + virtualusb::CONTROL_SOCKET;
    const int descriptor = virtualusb::connectTo(path, SOCK_STREAM);
    const bool isSent = virtualusb::sendAll(descriptor, command + "\n");
    std::string answer = isSent ? readLine(descriptor) : "";
    ::close(descriptor);
    if (answer.empty()) {
        throw std::system_error(ECONNRESET, std::generic_category(), path);
    }
    return answer;
}
