#include <cstdio>

#include "load/Samples.h"
#include "load/Workloads.h"
#include "net/Bytes.h"
#include "net/Socket.h"

void measureConnects(const LoadOptions& options) {
    const std::string request = net::fromHex(options.request);
    const std::uint16_t port = options.port;
    const std::chrono::milliseconds duration(options.milliseconds);
    Samples samples;
    const auto begin = Samples::Clock::now();
    auto now = begin;
    while (now < begin + duration) {
        const auto started = now;
        {
            const net::Socket socket = net::connectToPort(port);
            socket.send(request);
            socket.receiveLine();
        }
        now = Samples::Clock::now();
        samples.add(started, now);
    }
    const double seconds = std::chrono::duration<double>(now - begin).count();
    std::printf("{\"rate\": %.1f, \"p50\": %.2f, \"p99\": %.2f}\n",
                static_cast<double>(samples.count()) / seconds, samples.percentile(0.5),
                samples.percentile(0.99));
}
