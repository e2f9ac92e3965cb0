// Prints every change of a pin, for as long as it runs; loss and return of the server, too.
#include <cstdio>

#include <gpio-client/PinWatcher.h>

using namespace gpioclient;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s host:port\n", argv[0]);
        return 2;
    }
    try {
        PinWatcher::Config config;
        config.endpoint = Endpoint::parse(argv[1]);
        config.reconnect = true;
        config.startDisconnected = true;
        config.onConnectionNews = [](const std::string& news) { std::puts(news.c_str()); };
        PinWatcher watcher(config);
        while (true) {
            for (const PinEvent& event : watcher.waitForEvents(std::chrono::seconds(1))) {
                std::printf("pin %u is %s\n", event.pin, toString(event.level));
            }
            std::fflush(stdout);
        }
    } catch (const Error& error) {
        std::fprintf(stderr, "%s (%s)\n", error.what(), toString(error.cause()));
        return 1;
    }
}
