// Drives an output as the inverse of an input, for as long as the server is there.
#include <cstdio>

#include <gpio-client/Client.h>

using namespace gpioclient;

int main(int argc, char** argv) {
    constexpr unsigned INPUT = 13;
    constexpr unsigned OUTPUT = 1;
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s host:port\n", argv[0]);
        return 2;
    }
    try {
        Client client(Endpoint::parse(argv[1]));
        client.listen();
        while (true) {
            const bool high = client.readSettledLevels().isHigh(INPUT);
            client.writePin(OUTPUT, high ? Level::Low : Level::High);
            client.waitForChange(std::chrono::seconds(1));
        }
    } catch (const Error& error) {
        std::fprintf(stderr, "%s (%s)\n", error.what(), toString(error.cause()));
        return 1;
    }
}
