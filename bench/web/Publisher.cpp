// Passes the changes of a board on to an HTTP server that spreads them, as a small program would.

#include <array>
#include <iostream>
#include <string>

#include <gpio-client/Client.h>

#include "net/Socket.h"

namespace {

void publish(const net::Socket& socket, const std::string& message) {
    std::array<char, 4096> answer;
    socket.send("POST /publish HTTP/1.1\r\nHost: localhost\r\nContent-Length: " +
                std::to_string(message.size()) + "\r\n\r\n" + message);
    socket.receive(answer.data(), answer.size());
}

} // namespace

/// Arguments: the server of the board, and the port of the loopback device to publish to.
int main(int argc, char** argv) try {
    if (argc != 3) {
        return 2;
    }
    gpioclient::Client client(gpioclient::Endpoint::parse(argv[1]));
    const net::Socket socket = net::connectToPort(static_cast<std::uint16_t>(std::stoul(argv[2])));
    client.listen();
    std::cout << "publishing\n" << std::flush;
    while (true) {
        if (const auto notice = client.waitForChange(std::chrono::hours(1))) {
            publish(socket, "{\"changed\":" + std::to_string(notice->changed) +
                                ",\"high\":" + std::to_string(notice->high) + "}");
        }
    }
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
