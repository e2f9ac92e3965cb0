// Prints every pin with its direction and level.
#include <cstdio>

#include <gpio-client/Client.h>

using namespace gpioclient;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s host:port\n", argv[0]);
        return 2;
    }
    try {
        Client client(Endpoint::parse(argv[1]));
        std::printf("%s back end\n", toString(client.backEnd()));
        const PinMask inputs = client.inputPins();
        const Levels levels = client.readLevels();
        for (unsigned pin = 0; pin < client.pinCount(); ++pin) {
            const auto level = levels.at(pin);
            std::printf("%2u %s %s\n", pin, contains(inputs, pin) ? "input" : "output",
                        level ? toString(*level) : "unknown");
        }
        return 0;
    } catch (const Error& error) {
        std::fprintf(stderr, "%s (%s)\n", error.what(), toString(error.cause()));
        return 1;
    }
}
