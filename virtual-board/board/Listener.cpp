#include "board/Listener.h"

#include <sys/socket.h>
#include <unistd.h>

#include "protocol/UnixSocket.h"

Listener::Listener(EventLoop& loop, std::string path, int type, std::function<void(int)> accepted)
    : path_(std::move(path)), descriptor_(virtualusb::listenOn(path_, type)) {
    loop.watch(descriptor_, [this, accepted = std::move(accepted)] {
        const int session = ::accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC);
        if (session >= 0) {
            accepted(session);
        }
    });
}

Listener::~Listener() {
    ::close(descriptor_);
    ::unlink(path_.c_str());
}
