#pragma once

#include <array>
#include <cstddef>
#include <string>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "io/Connection.h"
#include "io/exception/ConnectionException.h"
#include "support/Descriptor.h"
#include "support/Problem.h"

namespace support {

/// A connection of the server and its other end, which the test holds.
class ConnectedPair {
public:
    /// A socket of type SOCK_SEQPACKET keeps the borders between the writes of both sides.
    explicit ConnectedPair(int type = SOCK_STREAM, sockaddr_in address = {},
                           std::size_t readLimit = 3)
        : ConnectedPair(makePair(type), address, readLimit) {}

    /// What the peer gets by one read, which may wait; empty at the end.
    std::string receive(std::size_t atMost, int flags = 0) const {
        std::string text(atMost, '\0');
        const ssize_t count = recv(peer.number(), text.data(), text.size(), flags);
        text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return text;
    }

    void peerSends(const std::string& text) const {
        EXPECT_EQ(write(peer.number(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }

    int descriptor; ///< the connection's
    Descriptor peer;
    io::Connection connection;

private:
    static std::array<int, 2> makePair(int type) {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()), 0);
        return ends;
    }

    ConnectedPair(std::array<int, 2> ends, sockaddr_in address, std::size_t readLimit)
        : descriptor(ends[0]), peer(ends[1]), connection(ends[0], address, readLimit) {}
};

/// What a step on a connection throws.
template <typename Step> std::string connectionProblem(Step step) {
    return problemOf<io::ConnectionException>(step);
}

} // namespace support
