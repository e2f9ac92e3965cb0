#include "preload/BusClient.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "protocol/UnixSocket.h"

namespace virtualusb {

namespace {

constexpr std::size_t MAX_ANSWER = 4096;

int connectToBoard() {
    const char* const directory = std::getenv(DIRECTORY_VARIABLE);
    const std::string path = std::string(directory != nullptr ? directory : "") + "/" + BUS_SOCKET;
    try {
        return connectTo(path, SOCK_SEQPACKET);
    } catch (const std::system_error&) {
        return -ENODEV;
    }
}

Answer exchange(int descriptor, const Request& request, std::string_view payload) {
    std::array<char, sizeof(Reply) + MAX_ANSWER> buffer;
    Reply reply{};
    if (sendRequest(descriptor, request, payload) < 0) {
        return {-ENODEV, {}};
    }
    ssize_t received = 0;
    do {
        received = ::recv(descriptor, buffer.data(), buffer.size(), 0);
    } while (received < 0 && errno == EINTR);
    if (received < static_cast<ssize_t>(sizeof reply)) {
        return {-ENODEV, {}};
    }
    std::memcpy(&reply, buffer.data(), sizeof reply);
    return {reply.result, {buffer.begin() + sizeof reply, buffer.begin() + received}};
}

} // namespace

int sendRequest(int descriptor, Request request, std::string_view payload) {
    std::array<iovec, 2> parts{
        {{&request, sizeof request}, {const_cast<char*>(payload.data()), payload.size()}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    while (::sendmsg(descriptor, &message, MSG_NOSIGNAL) < 0) {
        if (errno != EINTR) {
            return -ENODEV;
        }
    }
    return 0;
}

Answer call(const Request& request, std::string_view payload) {
    const int descriptor = connectToBoard();
    if (descriptor < 0) {
        return {descriptor, {}};
    }
    Answer answer = exchange(descriptor, request, payload);
    // By way of the program: a sanitizer in it saw the descriptor come and has to see it go.
    ::close(descriptor);
    return answer;
}

int callAndKeep(const Request& request, int& result) {
    const int descriptor = connectToBoard();
    if (descriptor < 0) {
        return descriptor;
    }
    result = exchange(descriptor, request, {}).result;
    if (result < 0) {
        ::close(descriptor);
        return result;
    }
    return descriptor;
}

} // namespace virtualusb
