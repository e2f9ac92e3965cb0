#include <array>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "load/Poller.h"
#include "load/Samples.h"
#include "load/Workloads.h"
#include "net/Bytes.h"
#include "net/Socket.h"

namespace {

using Clock = Samples::Clock;

net::Socket open(std::uint16_t port, const std::vector<std::string>& greetings) {
    net::Socket socket = net::connectToPort(port);
    net::greet(socket, greetings);
    return socket;
}

/// What makes the server broadcast: two texts that are sent in turn.
class Trigger {
public:
    explicit Trigger(const LoadOptions& options)
        : socket_(options.triggerPath.empty() ? open(options.triggerPort, options.triggerHello)
                                              : net::connectToPath(options.triggerPath)) {
        for (const std::string& text : options.triggers) {
            texts_.push_back(net::fromHex(text));
        }
    }

    Clock::time_point pull() {
        socket_.drain();
        const std::string& text = texts_[next_++ % texts_.size()];
        const auto now = Clock::now();
        socket_.send(text);
        return now;
    }

private:
    net::Socket socket_;
    std::vector<std::string> texts_;
    std::size_t next_ = 0;
};

class Listeners {
public:
    explicit Listeners(const LoadOptions& options) : messageLength_(options.messageBytes) {
        const std::uint64_t count = options.listeners;
        for (std::uint64_t index = 0; index < count; ++index) {
            sockets_.push_back(open(options.port, options.hello));
            poller_.watch(sockets_.back().descriptor(), index);
        }
        received_.resize(count);
    }

    /// Waits until each has one message more, and tells when the first and the last had it.
    std::pair<Clock::time_point, Clock::time_point> awaitMessage() {
        std::size_t complete = 0;
        Clock::time_point first{};
        while (complete < sockets_.size()) {
            constexpr int PATIENCE = 5000;
            const std::size_t ready = poller_.poll(PATIENCE, [&](std::size_t index) {
                if (take(index)) {
                    first = complete == 0 ? Clock::now() : first;
                    ++complete;
                }
            });
            if (ready == 0) {
                throw std::runtime_error("a message was lost");
            }
        }
        received_.assign(received_.size(), 0);
        return {first, Clock::now()};
    }

private:
    bool take(std::size_t index) {
        std::array<char, 4096> buffer;
        received_[index] += sockets_[index].receive(buffer.data(), buffer.size()).size();
        if (received_[index] > messageLength_) {
            throw std::runtime_error("more than the message came");
        }
        return received_[index] == messageLength_;
    }

    std::size_t messageLength_;
    std::vector<net::Socket> sockets_;
    std::vector<std::size_t> received_;
    Poller poller_;
};

} // namespace

void measureBroadcast(const LoadOptions& options) {
    // Even, as the number of changes has to be: the next run begins with the first trigger again.
    constexpr int WARM_UPS = 4;
    Listeners listeners(options);
    Trigger trigger(options);
    for (int count = 0; count < WARM_UPS; ++count) {
        trigger.pull();
        listeners.awaitMessage();
    }
    const std::uint64_t changes = (options.changes + 1) / 2 * 2;
    Samples untilFirst;
    Samples untilLast;
    Samples spread;
    for (std::uint64_t change = 0; change < changes; ++change) {
        const auto begin = trigger.pull();
        const auto [first, last] = listeners.awaitMessage();
        untilFirst.add(begin, first);
        untilLast.add(begin, last);
        spread.add(first, last);
    }
    std::printf("{\"p50\": %.2f, \"p99\": %.2f, \"first\": %.2f, \"spread\": %.2f}\n",
                untilLast.percentile(0.5), untilLast.percentile(0.99), untilFirst.percentile(0.5),
                spread.percentile(0.5));
}
