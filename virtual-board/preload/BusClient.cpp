#include "preload/BusClient.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "protocol/UnixSocket.h"

namespace virtualusb {

namespace {

constexpr std::size_t MAX_ANSWER = 4096;

ssize_t sendRequest(int descriptor, const Request& request, std::string_view payload) {
    Request header = request;
    std::array<iovec, 2> parts{
        {{&header, sizeof header}, {const_cast<char*>(payload.data()), payload.size()}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    ssize_t sent = 0;
    do {
        sent = ::sendmsg(descriptor, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

} // namespace

bool BusClient::enabled() {
    static const bool isEnabled = std::getenv(DIRECTORY_VARIABLE) != nullptr;
    return isEnabled;
}

std::string BusClient::socketPath() {
    const char* directory = std::getenv(DIRECTORY_VARIABLE);
    return std::string(directory != nullptr ? directory : "") + "/" + BUS_SOCKET;
}

int BusClient::connect() {
    const int descriptor = connectTo(socketPath(), SOCK_SEQPACKET);
    return descriptor < 0 ? -ENODEV : descriptor;
}

BusClient::Answer BusClient::exchange(int descriptor, const Request& request,
                                      std::string_view payload) {
    if (sendRequest(descriptor, request, payload) < 0) {
        return {-ENODEV, {}};
    }
    std::array<std::uint8_t, sizeof(Reply) + MAX_ANSWER> buffer;
    ssize_t received = 0;
    do {
        received = ::recv(descriptor, buffer.data(), buffer.size(), 0);
    } while (received < 0 && errno == EINTR);
    if (received < static_cast<ssize_t>(sizeof(Reply))) {
        return {-ENODEV, {}};
    }
    Reply reply;
    std::memcpy(&reply, buffer.data(), sizeof reply);
    return {reply.result, {buffer.begin() + sizeof reply, buffer.begin() + received}};
}

BusClient::Answer BusClient::call(RequestKind kind, std::uint32_t handle, std::uint32_t argument,
                                  std::string_view payload) {
    const int descriptor = connect();
    if (descriptor < 0) {
        return {descriptor, {}};
    }
    Request request{};
    request.kind = kind;
    request.handle = handle;
    request.argument = argument;
    request.payloadLength = static_cast<std::uint32_t>(payload.size());
    Answer answer = exchange(descriptor, request, payload);
    // By way of the program: a sanitizer in it saw the descriptor come and has to see it go.
    ::close(descriptor);
    return answer;
}

int BusClient::callAndKeep(RequestKind kind, std::uint32_t argument, std::uint32_t& result) {
    const int descriptor = connect();
    if (descriptor < 0) {
        return descriptor;
    }
    Request request{};
    request.kind = kind;
    request.argument = argument;
    const Answer answer = exchange(descriptor, request, {});
    if (answer.result < 0) {
        ::close(descriptor);
        return answer.result;
    }
    result = static_cast<std::uint32_t>(answer.result);
    return descriptor;
}

} // namespace virtualusb
