#include "board/BusServer.h"

#include <cerrno>
#include <cstring>
#include <system_error>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "protocol/UnixSocket.h"

using virtualusb::RequestKind;

namespace {

template <typename Header>
std::vector<std::uint8_t> message(const Header& header, const void* payload, std::size_t length) {
    std::vector<std::uint8_t> result(sizeof header + length);
    std::memcpy(result.data(), &header, sizeof header);
    if (length != 0) {
        std::memcpy(result.data() + sizeof header, payload, length);
    }
    return result;
}

} // namespace

BusServer::BusServer(Board& theBoard, const std::string& directory)
    : board(theBoard), device(theBoard.getDevice()), path(directory + "/" + virtualusb::BUS_SOCKET),
      listener(virtualusb::listenOn(path, SOCK_SEQPACKET)),
      buffer(sizeof(virtualusb::Request) + virtualusb::MAX_TRANSFER) {
    if (listener < 0) {
        throw std::system_error(-listener, std::generic_category(), path);
    }
    device.setHost(this);
    board.getLoop().watch(listener, POLLIN, [this](short) { acceptSession(); });
}

BusServer::~BusServer() {
    for (const auto& [descriptor, session] : sessions) {
        ::close(descriptor);
    }
    ::close(listener);
    ::unlink(path.c_str());
}

std::size_t BusServer::getOpenHandles() const {
    return handleDescriptors.size();
}

void BusServer::acceptSession() {
    const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor >= 0) {
        sessions.emplace(descriptor, Session{});
        watch(descriptor, false);
    }
}

void BusServer::watch(int descriptor, bool wantsToSend) {
    const auto events = static_cast<short>(wantsToSend ? POLLIN | POLLOUT : POLLIN);
    board.getLoop().watch(descriptor, events,
                          [this, descriptor](short ready) { sessionReady(descriptor, ready); });
}

void BusServer::sessionReady(int descriptor, short events) {
    if ((events & POLLOUT) != 0) {
        flush(descriptor);
    }
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 && !receive(descriptor)) {
        end(descriptor);
    }
}

bool BusServer::receive(int descriptor) {
    const ssize_t received = ::recv(descriptor, buffer.data(), buffer.size(), 0);
    if (received < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    if (received < static_cast<ssize_t>(sizeof(virtualusb::Request))) {
        return false;
    }
    virtualusb::Request request;
    std::memcpy(&request, buffer.data(), sizeof request);
    handle(descriptor, request,
           {buffer.data() + sizeof request, static_cast<std::size_t>(received) - sizeof request});
    return true;
}

void BusServer::handle(int descriptor, const virtualusb::Request& request,
                       std::string_view payload) {
    switch (request.kind) {
    case RequestKind::ReadAttribute:
        return handleAttribute(descriptor, std::string(payload));
    case RequestKind::DeviceNumber:
        return reply(descriptor,
                     device.isPlugged() ? static_cast<int>(device.getNumber()) : -ENODEV);
    case RequestKind::Open:
        return handleOpen(descriptor, request.argument);
    case RequestKind::Monitor:
        sessions[descriptor].isMonitor = true;
        return reply(descriptor, 0);
    case RequestKind::Close:
        closeHandle(request.handle);
        return reply(descriptor, 0);
    case RequestKind::Submit:
        return submit(request, payload);
    case RequestKind::Discard:
        return device.discard(request.handle, request.urb);
    default:
        break;
    }
    // Handles of an earlier life of the device act on nothing.
    const auto entry = handleDescriptors.find(request.handle);
    if (entry == handleDescriptors.end() || sessions[entry->second].isLost) {
        return reply(descriptor, -ENODEV);
    }
    switch (request.kind) {
    case RequestKind::Claim:
        return reply(descriptor, device.claim(request.handle, request.argument));
    case RequestKind::Release:
        return reply(descriptor, device.release(request.handle, request.argument));
    case RequestKind::Reset:
        return reply(descriptor, device.reset());
    case RequestKind::DriverName:
        return reply(descriptor, device.driverName().empty() ? -ENODATA : 0, device.driverName());
    case RequestKind::DetachDriver:
        return reply(descriptor, device.detachDriver());
    case RequestKind::AttachDriver:
        return reply(descriptor, device.attachDriver());
    default:
        return reply(descriptor, -ENOTTY);
    }
}

void BusServer::handleAttribute(int descriptor, const std::string& name) {
    const auto content = device.attribute(name);
    if (!content) {
        return reply(descriptor, -ENOENT);
    }
    reply(descriptor, 0, {reinterpret_cast<const char*>(content->data()), content->size()});
}

void BusServer::handleOpen(int descriptor, std::uint32_t number) {
    if (const int result = device.open(number); result < 0) {
        return reply(descriptor, result);
    }
    const std::uint32_t handle = ++lastHandle;
    sessions[descriptor].handle = handle;
    handleDescriptors[handle] = descriptor;
    reply(descriptor, static_cast<int>(handle));
}

void BusServer::closeHandle(std::uint32_t handle) {
    const auto entry = handleDescriptors.find(handle);
    if (entry != handleDescriptors.end()) {
        end(entry->second);
    }
}

void BusServer::submit(const virtualusb::Request& request, std::string_view payload) {
    const auto entry = handleDescriptors.find(request.handle);
    if (entry == handleDescriptors.end() || sessions[entry->second].isLost) {
        return;
    }
    device.submit({request.handle,
                   request.urb,
                   request.transferType,
                   request.endpoint,
                   request.length,
                   {payload.begin(), payload.end()}});
}

void BusServer::end(int descriptor) {
    const auto entry = sessions.find(descriptor);
    if (entry == sessions.end()) {
        return;
    }
    const Session session = std::move(entry->second);
    sessions.erase(entry);
    board.getLoop().unwatch(descriptor);
    if (session.handle) {
        handleDescriptors.erase(*session.handle);
        device.closed(*session.handle);
    }
    ::close(descriptor);
}

void BusServer::reply(int descriptor, int result, std::string_view payload) {
    send(descriptor, message(virtualusb::Reply{result, static_cast<std::uint32_t>(payload.size())},
                             payload.data(), payload.size()));
}

void BusServer::send(int descriptor, Message content) {
    const auto entry = sessions.find(descriptor);
    if (entry == sessions.end()) {
        return;
    }
    entry->second.outbox.push_back(std::move(content));
    flush(descriptor);
}

void BusServer::flush(int descriptor) {
    Session& session = sessions.at(descriptor);
    const bool wasWaiting = session.outbox.size() > 1;
    while (!session.outbox.empty()) {
        const Message& next = session.outbox.front();
        if (::send(descriptor, next.data(), next.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0 &&
            errno == EAGAIN) {
            return watch(descriptor, true);
        }
        session.outbox.pop_front();
    }
    if (session.isLost) {
        ::shutdown(descriptor, SHUT_WR);
    }
    if (wasWaiting || session.isLost) {
        watch(descriptor, false);
    }
}

void BusServer::completed(std::uint32_t handle, std::uint64_t urb, int status,
                          std::uint32_t actualLength, std::span<const std::uint8_t> data) {
    const auto entry = handleDescriptors.find(handle);
    if (entry == handleDescriptors.end()) {
        return;
    }
    const virtualusb::Completion completion{urb, status, actualLength,
                                            static_cast<std::uint32_t>(data.size()), 0};
    send(entry->second, message(completion, data.data(), data.size()));
}

void BusServer::deviceAdded(std::uint32_t number) {
    notify(true, number);
}

void BusServer::deviceRemoved(std::uint32_t number) {
    for (const auto& [handle, descriptor] : handleDescriptors) {
        sessions.at(descriptor).isLost = true;
        flush(descriptor);
    }
    notify(false, number);
}

void BusServer::notify(bool added, std::uint32_t number) {
    const virtualusb::HotplugNotice notice{added ? 1U : 0U, number};
    for (auto& [descriptor, session] : sessions) {
        if (session.isMonitor) {
            send(descriptor, message(notice, nullptr, 0));
        }
    }
}
