#include <algorithm>
#include <array>
#include <cstdio>
#include <deque>
#include <vector>

#include "load/Poller.h"
#include "load/Samples.h"
#include "load/Workloads.h"
#include "net/Bytes.h"
#include "net/Socket.h"

namespace {

using Clock = Samples::Clock;

class Client {
public:
    Client(std::uint16_t port, const std::string& request)
        : socket_(net::connectToPort(port)), request_(request) {
        // Waiting for each client's first answer keeps the server's short backlog from filling.
        socket_.send(request_);
        socket_.receiveLine();
    }

    int descriptor() const { return socket_.descriptor(); }

    void send(std::size_t count) {
        std::string text;
        for (std::size_t sent = 0; sent < count; ++sent) {
            text += request_;
        }
        started_.insert(started_.end(), count, Clock::now());
        socket_.send(text);
    }

    /// Takes what has come and returns the number of lines completed by it.
    std::size_t receive(Samples* samples) {
        std::array<char, 4096> buffer;
        const std::string_view text = socket_.receive(buffer.data(), buffer.size());
        const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
        const auto now = Clock::now();
        for (std::size_t line = 0; line < lines; ++line) {
            if (samples != nullptr) {
                samples->add(started_.front(), now);
            }
            started_.pop_front();
        }
        return lines;
    }

    bool isIdle() const { return started_.empty(); }

private:
    net::Socket socket_;
    const std::string& request_;
    std::deque<Clock::time_point> started_;
};

class Load {
public:
    explicit Load(const LoadOptions& options)
        : request_(net::fromHex(options.request)), window_(options.window),
          blocking_(options.blocking) {
        const std::uint64_t count = options.clients;
        clients_.reserve(count);
        for (std::uint64_t index = 0; index < count; ++index) {
            clients_.emplace_back(options.port, request_);
            poller_.watch(clients_.back().descriptor(), index);
        }
    }

    void start() {
        for (Client& client : clients_) {
            client.send(window_);
        }
    }

    void runUntil(Clock::time_point end, Samples* samples) {
        while (Clock::now() < end) {
            receive([&](Client& client) {
                const std::size_t lines = client.receive(samples);
                if (lines > 0) {
                    client.send(lines);
                }
            });
        }
    }

    void finish() {
        while (!std::all_of(clients_.begin(), clients_.end(),
                            [](const Client& client) { return client.isIdle(); })) {
            receive([](Client& client) { client.receive(nullptr); });
        }
    }

private:
    template <typename Function> void receive(const Function& function) {
        if (blocking_) {
            function(clients_.front());
            return;
        }
        constexpr int PATIENCE = 1000;
        poller_.poll(PATIENCE, [&](std::size_t index) { function(clients_[index]); });
    }

    std::string request_;
    std::size_t window_;
    bool blocking_;
    std::vector<Client> clients_;
    Poller poller_;
};

} // namespace

void measureRate(const LoadOptions& options) {
    constexpr std::size_t MANY_SAMPLES = 1U << 20U;
    const std::chrono::milliseconds duration(options.milliseconds);
    Load load(options);
    Samples samples;
    samples.reserve(MANY_SAMPLES);
    load.start();
    load.runUntil(Clock::now() + duration / 5, nullptr);
    const auto begin = Clock::now();
    load.runUntil(begin + duration, &samples);
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    const std::size_t answers = samples.count();
    load.finish();
    std::printf("{\"rate\": %.1f, \"p50\": %.2f, \"p99\": %.2f, \"answers\": %zu}\n",
                static_cast<double>(answers) / seconds, samples.percentile(0.5),
                samples.percentile(0.99), answers);
}
