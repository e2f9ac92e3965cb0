#include "protocol/UnixSocket.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace virtualusb {

namespace {

constexpr int BACKLOG = 64;

/// Makes a socket and hands it, with the address, to `use`, which returns whether it succeeded.
template <typename Use> int makeSocket(const std::string& path, int type, Use use) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    }
    path.copy(address.sun_path, path.size());
    const int descriptor = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (descriptor == -1 ||
        !use(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address)) {
        const int problem = errno;
        ::close(descriptor);
        throw std::system_error(problem, std::generic_category(), path);
    }
    return descriptor;
}

} // namespace

int connectTo(const std::string& path, int type) {
    return makeSocket(path, type, [](int descriptor, const sockaddr* address, socklen_t length) {
        int result = 0;
        do {
            result = ::connect(descriptor, address, length);
        } while (result != 0 && errno == EINTR);
        return result == 0;
    });
}

int listenOn(const std::string& path, int type) {
    // The name appears when the socket listens already: whoever finds it may connect.
    const std::string unready = path + ".new";
    const auto listen = [&](int descriptor, const sockaddr* address, socklen_t length) {
        return ::bind(descriptor, address, length) == 0 && ::listen(descriptor, BACKLOG) == 0 &&
               std::rename(unready.c_str(), path.c_str()) == 0;
    };
    return makeSocket(unready, type | SOCK_NONBLOCK, listen);
}

bool sendAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        bytes.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
    return true;
}

} // namespace virtualusb
