#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace net {

/// An owned descriptor of a socket. Failures throw std::system_error.
class Socket {
public:
    explicit Socket(int descriptor) : number_(descriptor) {}
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket();

    int descriptor() const { return number_; }

    /// Writes the whole text, in one call when the kernel takes it.
    void send(std::string_view text) const;

    /// Waits for at least one byte and returns what one read took; throws at the end of the stream.
    std::string_view receive(char* buffer, std::size_t size) const;

    /// Reads exactly this many bytes.
    std::string receiveExactly(std::size_t length) const;

    /// Reads up to and including the next line feed.
    std::string receiveLine() const;

    /// Throws away what is there without waiting.
    void drain() const;

private:
    int number_;
};

/// Connects to a port of the loopback device, with TCP_NODELAY.
Socket connectToPort(std::uint16_t port);

Socket connectToPath(const std::string& path);

/// A listening socket on the loopback device with TCP_NODELAY for its clients.
Socket listenOn(std::uint16_t port, int backlog);

} // namespace net
