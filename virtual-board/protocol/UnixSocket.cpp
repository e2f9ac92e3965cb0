#include "protocol/UnixSocket.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace virtualusb {

namespace {

constexpr int BACKLOG = 64;

int fillAddress(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return -ENAMETOOLONG;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return 0;
}

int closeAndReturn(int descriptor, int error) {
    ::close(descriptor);
    return -error;
}

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

} // namespace

int connectTo(const std::string& path, int type) {
    sockaddr_un address;
    if (const int result = fillAddress(path, address); result < 0) {
        return result;
    }
    const int descriptor = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return -errno;
    }
    while (::connect(descriptor, generic(address), sizeof address) != 0) {
        if (errno != EINTR) {
            return closeAndReturn(descriptor, errno);
        }
    }
    return descriptor;
}

int listenOn(const std::string& path, int type) {
    // The name appears when the socket listens already: whoever finds it may connect.
    const std::string unready = path + ".new";
    sockaddr_un address;
    if (const int result = fillAddress(unready, address); result < 0) {
        return result;
    }
    const int descriptor = ::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) {
        return -errno;
    }
    if (::bind(descriptor, generic(address), sizeof address) != 0 ||
        ::listen(descriptor, BACKLOG) != 0 || ::rename(unready.c_str(), path.c_str()) != 0) {
        return closeAndReturn(descriptor, errno);
    }
    return descriptor;
}

} // namespace virtualusb
