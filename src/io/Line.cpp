#include "io/Line.h"

#include <algorithm>
#include <deque>
#include <vector>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "io/Connection.h"

namespace io {

Line::Line(Connection& client, std::string_view content, std::string_view ending)
    : connection(&client), text(content), lineEnd(ending) {}

bool Line::send() {
    const DescriptorGuard::Use descriptor(connection->descriptorGuard);
    if (!textSent) {
        textSent = connection->send(descriptor, text, lineEnd.empty() ? 0 : MSG_MORE);
    }
    if (textSent && !lineEnd.empty()) {
        connection->send(descriptor, lineEnd, 0);
    }
    return isWhole();
}

void Line::sendOrClose() {
    const bool tookNothing = untakenAtFirst > 0 && untaken() >= untakenAtFirst;
    if (isWhole() ? tookNothing : !send()) {
        connection->abandon();
        // Fails like any other on a closed connection.
        connection->send(DescriptorGuard::Use(connection->descriptorGuard), text, 0);
    }
}

void Line::sendWhole() {
    if (send()) {
        return;
    }
    const auto deadline = Clock::now() + PATIENCE;
    while (waitForRoom({this, 1}, deadline)) {
        if (send()) {
            return;
        }
    }
    sendOrClose();
}

bool Line::waitForRoom(std::span<Line> lines, Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
        return false;
    }
    std::deque<DescriptorGuard::Use> uses;
    std::vector<pollfd> clients;
    for (const Line& line : lines) {
        const int number = uses.emplace_back(line.connection->descriptorGuard).number();
        clients.push_back({number, POLLOUT, 0});
    }
    const bool allOpen = std::none_of(clients.begin(), clients.end(),
                                      [](const pollfd& client) { return client.fd == -1; });
    poll(clients.data(), clients.size(), allOpen ? static_cast<int>(left.count()) : 0);
    for (std::size_t index = 0; index < lines.size(); ++index) {
        Line& line = lines[index];
        line.roomFound = clients[index].revents != 0 || clients[index].fd == -1;
        if (!line.roomFound && line.untakenAtFirst == 0) {
            line.untakenAtFirst = line.untaken();
        }
    }
    return true;
}

/// The bytes that the system still keeps for the client.
int Line::untaken() const {
    const DescriptorGuard::Use descriptor(connection->descriptorGuard);
    int bytes = 0;
    ioctl(descriptor.number(), SIOCOUTQ, &bytes);
    return bytes;
}

} // namespace io
