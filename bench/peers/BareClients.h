#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>

#include "net/Socket.h"

/// The least that a thread for each client can do: accepts on the loopback device and answers
/// whatever one read takes with two writes, without a protocol and without a log.
class BareClients {
public:
    /// A read takes at most `readLimit` bytes. `writesPerAnswer` is 1 or 2.
    BareClients(std::uint16_t port, std::size_t readLimit, std::uint64_t writesPerAnswer = 2);

    /// What to do, on the client's thread, between the read and the answer; nothing by default.
    void setWork(std::function<void()> function) { work_ = std::move(function); }

    /// Accepts for ever.
    void serve();

    /// Writes the line, which has its line feed, to every client with as many writes as an answer.
    void broadcast(std::string_view line);

private:
    void serveClient(int client);
    bool writeLine(int client, std::string_view line) const;

    net::Socket listener_;
    std::size_t limit_;
    std::uint64_t writes_;
    std::function<void()> work_ = [] {};
    std::mutex clientsLock_;
    std::set<int> clients_;
};
