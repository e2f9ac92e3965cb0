#include "board/BusServer.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

using virtualusb::RequestKind;

namespace {

/// A program has few transfers under way, so what it has not taken yet fits into the socket. One
/// that takes nothing any more does not hold up the board.
template <typename Header>
void send(int descriptor, Header header, const char* payload, std::size_t length) {
    std::array<iovec, 2> parts{{{&header, sizeof header}, {const_cast<char*>(payload), length}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    if (::sendmsg(descriptor, &message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0 && errno == EAGAIN) {
        ::shutdown(descriptor, SHUT_RDWR);
    }
}

} // namespace

BusServer::BusServer(Board& board, const std::string& directory)
    : loop_(board.loop), device_(board.device), handles_(board.statistics["handles"]),
      buffer_(sizeof(virtualusb::Request) + virtualusb::MAX_TRANSFER),
      listener_(loop_, directory + "/" + virtualusb::BUS_SOCKET, SOCK_SEQPACKET,
                [this](int descriptor) { accept(descriptor); }) {
    device_.setHost({[this](const Urb& urb, int status, std::size_t length, UsbDevice::Bytes data) {
                         completed(urb, status, length, data);
                     },
                     [this](bool added) { changed(added); }});
}

BusServer::~BusServer() {
    for (const auto& [descriptor, session] : sessions_) {
        ::close(descriptor);
    }
}

bool BusServer::isSession(std::uint32_t handle, Session kind) const {
    const auto entry = sessions_.find(static_cast<int>(handle));
    return entry != sessions_.end() && entry->second == kind;
}

void BusServer::accept(int descriptor) {
    sessions_.emplace(descriptor, Session::Requests);
    loop_.watch(descriptor, [this, descriptor] { receive(descriptor); });
}

void BusServer::receive(int descriptor) {
    const ssize_t received = ::recv(descriptor, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    if (received < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    virtualusb::Request request;
    if (received < static_cast<ssize_t>(sizeof request)) {
        return end(descriptor);
    }
    std::memcpy(&request, buffer_.data(), sizeof request);
    handle(descriptor, request,
           {buffer_.data() + sizeof request, static_cast<std::size_t>(received) - sizeof request});
}

void BusServer::handle(int descriptor, const virtualusb::Request& request,
                       std::string_view payload) {
    switch (request.kind) {
    case RequestKind::ReadAttribute: {
        const auto content = device_.attribute(std::string(payload));
        return reply(descriptor, content ? 0 : -ENOENT, content.value_or(""));
    }
    case RequestKind::DeviceNumber:
        return reply(descriptor,
                     device_.isPlugged() ? static_cast<int>(device_.getNumber()) : -ENODEV);
    case RequestKind::Open:
        return handleOpen(descriptor, request.argument);
    case RequestKind::Monitor:
        sessions_[descriptor] = Session::Monitor;
        return reply(descriptor, 0);
    case RequestKind::Close:
        end(static_cast<int>(request.handle));
        return reply(descriptor, 0);
    case RequestKind::Submit:
        return submit(request, payload);
    case RequestKind::Discard:
        return device_.discard(request.handle, request.urb);
    default:
        return handleOfHandle(descriptor, request);
    }
}

void BusServer::handleOpen(int descriptor, std::uint32_t number) {
    if (!device_.isPlugged() || number != device_.getNumber()) {
        return reply(descriptor, -ENOENT);
    }
    handles_ += isSession(static_cast<std::uint32_t>(descriptor), Session::Handle) ? 0 : 1;
    sessions_[descriptor] = Session::Handle;
    reply(descriptor, descriptor);
}

void BusServer::handleOfHandle(int descriptor, const virtualusb::Request& request) {
    // Handles of an earlier life of the device act on nothing.
    if (!isSession(request.handle, Session::Handle)) {
        return reply(descriptor, -ENODEV);
    }
    const std::string driver = device_.driverName();
    switch (request.kind) {
    case RequestKind::Claim:
        return reply(descriptor, device_.claim(request.handle, request.argument));
    case RequestKind::Release:
        device_.release(request.handle);
        return reply(descriptor, 0);
    case RequestKind::DriverName:
        return reply(descriptor, driver.empty() ? -ENODATA : 0, driver);
    case RequestKind::DetachDriver:
        return reply(descriptor, device_.detachDriver());
    default:
        return reply(descriptor, -EINVAL);
    }
}

void BusServer::submit(const virtualusb::Request& request, std::string_view payload) {
    if (isSession(request.handle, Session::Handle)) {
        device_.submit({request.handle,
                        request.urb,
                        request.transferType,
                        request.endpoint,
                        request.length,
                        {payload.begin(), payload.end()}});
    }
}

void BusServer::end(int descriptor) {
    const auto session = sessions_.extract(descriptor);
    if (!session.empty()) {
        const bool isHandle =
            session.mapped() == Session::Handle || session.mapped() == Session::LostHandle;
        handles_ -= isHandle ? 1 : 0;
        loop_.unwatch(descriptor);
        device_.release(static_cast<std::uint32_t>(descriptor));
        ::close(descriptor);
    }
}

void BusServer::reply(int descriptor, int result, std::string_view payload) {
    send(descriptor, virtualusb::Reply{result}, payload.data(), payload.size());
}

void BusServer::completed(const Urb& urb, int status, std::size_t actualLength,
                          UsbDevice::Bytes data) {
    if (isSession(urb.handle, Session::Handle)) {
        send(static_cast<int>(urb.handle),
             virtualusb::Completion{urb.id, status, static_cast<std::uint32_t>(actualLength)},
             reinterpret_cast<const char*>(data.data()), data.size());
    }
}

/// The connections of a lost device end behind what was sent on them.
void BusServer::changed(bool added) {
    for (auto& [descriptor, session] : sessions_) {
        if (session == Session::Handle && !added) {
            session = Session::LostHandle;
            ::shutdown(descriptor, SHUT_WR);
        } else if (session == Session::Monitor) {
            send(descriptor, virtualusb::HotplugNotice{added ? 1U : 0U, device_.getNumber()},
                 nullptr, 0);
        }
    }
}
