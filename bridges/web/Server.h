#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include "Application.h"
#include "Connection.h"
#include "Limits.h"
#include "Link.h"

namespace webbridge {

/// The HTTP side: accepts connections, hands writes to the link and tells what comes from it. All
/// of it runs on the one thread that runs the context.
class Server {
public:
    struct Config {
        asio::ip::tcp::endpoint listen;
        Application::Config application;
        Limits limits;
        gpioclient::Endpoint server;
        std::map<unsigned, std::string> names; ///< Only to tell of those that no pin has.
    };

    /// Listens when it returns; throws std::system_error when it cannot.
    Server(asio::io_context& context, Config config);

    asio::ip::tcp::endpoint address() const { return acceptor_.local_endpoint(); }

    /// Ends every connection; the context then has nothing more to do.
    void stop();

    // For the connections.

    Application& application() { return application_; }
    const PinTable& table() const { return table_; }
    const Limits& limits() const { return limits_; }

    /// For what one read brings; used up before the next.
    std::span<char> inputBuffer() { return inputBuffer_; }

    /// Queues a write and answers the connection later; false when too many wait.
    bool submit(WriteJob job, const std::shared_ptr<Connection>& connection);

    bool mayStream() const;

    /// Takes one of the places for refusals that are held back, if there is one.
    bool delayRefusal();
    void endDelay() { --delayedRefusals_; }

private:
    struct PendingWrite {
        std::weak_ptr<Connection> connection;
        Connection::Clock::time_point deadline;
    };

    void listen(const asio::ip::tcp::endpoint& endpoint);
    void accept();
    void onAccept(asio::ip::tcp::socket socket);
    void takeUpdates();
    void apply(const Link::Update& update);
    void finishWrite(std::uint64_t id, const Response& response);
    void scheduleCheck();
    void checkTimes();
    void checkWrites(Connection::Clock::time_point now);

    asio::io_context& context_;
    asio::ip::tcp::acceptor acceptor_;
    asio::steady_timer timer_;
    asio::steady_timer acceptPause_;
    Limits limits_;
    std::map<unsigned, std::string> names_;
    Application application_;
    PinTable table_;
    std::vector<std::shared_ptr<Connection>> connections_;
    std::map<std::uint64_t, PendingWrite> writes_;
    std::uint64_t lastWrite_ = 0;
    std::size_t delayedRefusals_ = 0;
    bool isChecking_ = false;
    bool stopped_ = false;
    std::array<char, 16'384> inputBuffer_{};
    Link link_; ///< Last: its thread posts to the context and must have ended before the rest goes.
};

} // namespace webbridge
