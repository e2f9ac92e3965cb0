#include "Server.h"

#include <algorithm>
#include <utility>

#include <asio/post.hpp>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace webbridge {

namespace {

constexpr std::chrono::milliseconds CHECK_INTERVAL{100};
constexpr std::chrono::milliseconds ACCEPT_PAUSE{100};
/// Connections beyond the limit that are told so; more are closed without a word.
constexpr std::size_t TURNED_AWAY_LIMIT = 32;
/// Bytes that the system may hold for a reader that does not read.
constexpr int SEND_BUFFER = 16'384;
constexpr int VANISHED_HOST_MILLISECONDS = 30'000;

} // namespace

Server::Server(asio::io_context& context, Config config)
    : context_(context), acceptor_(context), timer_(context), acceptPause_(context),
      limits_(config.limits), names_(std::move(config.names)),
      application_(std::move(config.application)),
      link_(config.server, [this] { asio::post(context_, [this] { takeUpdates(); }); }) {
    listen(config.listen);
    accept();
}

void Server::listen(const asio::ip::tcp::endpoint& endpoint) {
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(asio::socket_base::reuse_address(true));
    // Accepted sockets inherit these.
    acceptor_.set_option(asio::socket_base::send_buffer_size(SEND_BUFFER));
    acceptor_.set_option(asio::ip::tcp::no_delay(true));
    const int unsent = SEND_BUFFER;
    setsockopt(acceptor_.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &unsent, sizeof unsent);
    const int vanished = VANISHED_HOST_MILLISECONDS;
    setsockopt(acceptor_.native_handle(), IPPROTO_TCP, TCP_USER_TIMEOUT, &vanished,
               sizeof vanished);
    acceptor_.bind(endpoint);
    acceptor_.listen();
}

void Server::accept() {
    acceptor_.async_accept([this](const asio::error_code& error, asio::ip::tcp::socket socket) {
        if (stopped_) {
            return;
        }
        if (!error) {
            onAccept(std::move(socket));
            accept();
        } else if (error == asio::error::connection_aborted) {
            accept();
        } else {
            // No descriptor is left; one will be.
            acceptPause_.expires_after(ACCEPT_PAUSE);
            acceptPause_.async_wait([this](const asio::error_code& cancelled) {
                if (!cancelled) {
                    accept();
                }
            });
        }
    });
}

void Server::onAccept(asio::ip::tcp::socket socket) {
    asio::error_code error;
    socket.non_blocking(true, error);
    if (error) {
        return;
    }
    std::erase_if(connections_, [](const auto& connection) { return connection->isClosed(); });
    if (connections_.size() >= limits_.connections + TURNED_AWAY_LIMIT) {
        return;
    }
    const bool hasRoom = connections_.size() < limits_.connections;
    const auto connection =
        connections_.emplace_back(std::make_shared<Connection>(*this, std::move(socket)));
    if (hasRoom) {
        connection->start();
    } else {
        connection->turnAway();
    }
    scheduleCheck();
}

bool Server::mayStream() const {
    const auto count = std::count_if(connections_.begin(), connections_.end(),
                                     [](const auto& connection) { return connection->isStream(); });
    return static_cast<std::size_t>(count) < limits_.streams;
}

bool Server::delayRefusal() {
    if (delayedRefusals_ >= limits_.delayedRefusals) {
        return false;
    }
    ++delayedRefusals_;
    return true;
}

bool Server::submit(WriteJob job, const std::shared_ptr<Connection>& connection) {
    if (writes_.size() >= limits_.writes) {
        return false;
    }
    job.id = ++lastWrite_;
    writes_[job.id] = {connection, Connection::Clock::now() + limits_.acknowledgement};
    link_.write(job);
    return true;
}

void Server::takeUpdates() {
    if (stopped_) {
        return;
    }
    for (const Link::Update& update : link_.takeUpdates()) {
        apply(update);
    }
}

/// Everybody knows a new level before the one who asked for it is told that it is done.
void Server::apply(const Link::Update& update) {
    const News news = News::between(table_, update.table);
    const bool isOtherBackEnd = table_.backEnd != update.table.backEnd;
    table_ = update.table;
    if (isOtherBackEnd) {
        bridge::warnOfMissingPins(table_, names_);
    }
    if (news.any()) {
        const std::string events = news.toEvents(application_.documents(), table_);
        for (const auto& connection : connections_) {
            if (connection->isStream()) {
                connection->tell(news, events);
            }
        }
    }
    if (update.result) {
        finishWrite(update.result->id, Application::answerTo(update.result->outcome));
    }
}

void Server::finishWrite(std::uint64_t id, const Response& response) {
    const auto found = writes_.find(id);
    if (found == writes_.end()) {
        return;
    }
    const auto connection = found->second.connection.lock();
    writes_.erase(found);
    if (connection) {
        connection->finishWrite(response);
    }
}

void Server::scheduleCheck() {
    if (isChecking_ || stopped_) {
        return;
    }
    isChecking_ = true;
    timer_.expires_after(CHECK_INTERVAL);
    timer_.async_wait([this](const asio::error_code& error) {
        isChecking_ = false;
        if (!error && !stopped_) {
            checkTimes();
        }
    });
}

void Server::checkTimes() {
    const auto now = Connection::Clock::now();
    checkWrites(now);
    for (const auto& connection : connections_) {
        connection->checkTime(now);
    }
    std::erase_if(connections_, [](const auto& connection) { return connection->isClosed(); });
    if (!connections_.empty() || !writes_.empty()) {
        scheduleCheck();
    }
}

void Server::checkWrites(Connection::Clock::time_point now) {
    std::vector<std::uint64_t> late;
    for (const auto& [id, write] : writes_) {
        if (now >= write.deadline) {
            late.push_back(id);
        }
    }
    for (const std::uint64_t id : late) {
        // What has not been begun never will be.
        const bool takenBack = link_.takeBack(id);
        finishWrite(id, takenBack
                            ? errorResponse(503, "the server is too slow; nothing was changed")
                            : Application::answerTo(WriteOutcome::Unacknowledged));
    }
}

void Server::stop() {
    stopped_ = true;
    asio::error_code ignored;
    acceptor_.close(ignored);
    timer_.cancel();
    acceptPause_.cancel();
    for (const auto& connection : connections_) {
        connection->abort();
    }
    connections_.clear();
}

} // namespace webbridge
