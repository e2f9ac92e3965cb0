#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <asio/ip/tcp.hpp>

#include "Http.h"
#include "News.h"
#include "RequestReader.h"

namespace webbridge {

class Server;

/// One connection of a browser or another HTTP client, which asks and is answered in turns until it
/// perhaps becomes a stream of events. Of the server's one thread. It lives as long as the server
/// keeps it or an operation on its socket is under way; the server outlives both.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Clock = std::chrono::steady_clock;

    Connection(Server& server, asio::ip::tcp::socket socket);

    void start();

    /// Answers without reading anything, since there are too many connections.
    void turnAway();

    /// Tells a stream of events; `events` are those of `news`. One that is behind is told later.
    void tell(const News& news, std::string_view events);

    /// The answer to the PUT that this connection waits for.
    void finishWrite(const Response& response);

    /// Ends what has taken too long.
    void checkTime(Clock::time_point now);

    /// Ends it at once; the other side may see that as a reset.
    void abort();

    bool isStream() const { return state_ == State::Streaming; }
    bool isClosed() const { return state_ == State::Closed; }

private:
    enum class State {
        Reading,
        Delayed, ///< The answer is held back.
        Waiting, ///< For the acknowledgement of a PUT.
        Sending,
        Streaming,
        Lingering, ///< Everything has been sent; what still comes is thrown away.
        Closed
    };

    void waitForInput();
    void onInput();
    void proceed();
    bool takeStep();
    void takeRequest();
    void startStream();
    void respond(const Response& response);
    void sendNow(const Response& response);
    void send(std::string text);
    void flush();
    bool sendSome(std::string_view& text);
    void waitForRoom();
    void onSent();
    void linger();
    void close();

    Server& server_;
    asio::ip::tcp::socket socket_;
    State state_ = State::Reading;
    std::string input_;
    std::unique_ptr<RequestReader> reader_;
    std::string output_; ///< What the system has not taken yet of the one write under way.
    News untold_;
    std::unique_ptr<Response> delayed_;
    Clock::time_point since_;        ///< When the state began; of a stream, of the last event.
    Clock::time_point lastProgress_; ///< Since when the system takes nothing of output_.
    Clock::time_point requestBegan_;
    bool inRequest_ = false;
    bool closing_ = false; ///< After what is being sent.
    bool isHead_ = false;
    bool waitsForInput_ = false;
    bool waitsForRoom_ = false;
    std::size_t thrownAway_ = 0;
};

} // namespace webbridge
