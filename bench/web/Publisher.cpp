// Passes the changes of a board on to an HTTP server that spreads them, as a small program would.

#include <iostream>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gpio-client/Client.h>

namespace {

int connectTo(const gpioclient::Endpoint& endpoint) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    inet_pton(AF_INET, endpoint.host.c_str(), &address.sin_addr);
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw gpioclient::Error(gpioclient::Cause::Unreachable, "cannot publish");
    }
    return socket;
}

void publish(int socket, const std::string& message) {
    const std::string request = "POST /publish HTTP/1.1\r\nHost: localhost\r\nContent-Length: " +
                                std::to_string(message.size()) + "\r\n\r\n" + message;
    char answer[4096];
    if (send(socket, request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
        recv(socket, answer, sizeof answer, 0) <= 0) {
        throw gpioclient::Error(gpioclient::Cause::ConnectionLost, "cannot publish");
    }
}

} // namespace

/// Arguments: the server of the board, and the address to publish to.
int main(int argc, char** argv) try {
    if (argc != 3) {
        return 2;
    }
    gpioclient::Client client(gpioclient::Endpoint::parse(argv[1]));
    const int socket = connectTo(gpioclient::Endpoint::parse(argv[2]));
    client.listen();
    std::cout << "publishing\n" << std::flush;
    while (true) {
        if (const auto notice = client.waitForChange(std::chrono::hours(1))) {
            publish(socket, "{\"changed\":" + std::to_string(notice->changed) +
                                ",\"high\":" + std::to_string(notice->high) + "}");
        }
    }
} catch (const gpioclient::Error& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
