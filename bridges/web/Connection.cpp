#include "Connection.h"

#include <utility>

#include <asio/buffer.hpp>
#include <sys/socket.h>

#include "Server.h"
#include "Text.h"

namespace webbridge {

namespace {

/// What a client may still send while its connection ends.
constexpr std::size_t THROWN_AWAY_LIMIT = std::size_t{256} * 1024;

constexpr std::string_view STREAM_HEAD = "Content-Type: text/event-stream\r\n"
                                         "Cache-Control: no-store\r\n"
                                         "X-Accel-Buffering: no\r\n"
                                         "Connection: close\r\n\r\n"
                                         "retry: 1000\n\n";

} // namespace

Connection::Connection(Server& server, asio::ip::tcp::socket socket)
    : server_(server), socket_(std::move(socket)), since_(Clock::now()) {}

void Connection::start() {
    reader_ = std::make_unique<RequestReader>();
    waitForInput();
}

void Connection::turnAway() {
    Response response = errorResponse(503, "too many connections");
    response.close = true;
    respond(response);
}

void Connection::waitForInput() {
    if (waitsForInput_ || state_ == State::Closed) {
        return;
    }
    waitsForInput_ = true;
    socket_.async_wait(asio::ip::tcp::socket::wait_read,
                       [self = shared_from_this()](const asio::error_code& error) {
                           self->waitsForInput_ = false;
                           if (!error) {
                               self->onInput();
                           }
                       });
}

void Connection::onInput() {
    asio::error_code error;
    const std::span<char> room = server_.inputBuffer();
    const std::size_t size = socket_.read_some(asio::buffer(room.data(), room.size()), error);
    if (error == asio::error::would_block || error == asio::error::try_again) {
        waitForInput();
        return;
    }
    if (error) {
        close();
        return;
    }
    switch (state_) {
    case State::Reading:
        input_.append(room.data(), size);
        proceed();
        break;
    case State::Streaming:
    case State::Lingering:
        // Nothing that comes here means anything; only its end does.
        thrownAway_ += size;
        if (thrownAway_ > THROWN_AWAY_LIMIT) {
            abort();
        } else {
            waitForInput();
        }
        break;
    default:
        break;
    }
}

/// Answers what has been received, request by request, as long as nothing is to be waited for.
void Connection::proceed() {
    while (state_ == State::Reading && takeStep()) {
    }
}

bool Connection::takeStep() {
    if (!inRequest_ && !input_.empty()) {
        inRequest_ = true;
        requestBegan_ = Clock::now();
    }
    switch (reader_->read(input_)) {
    case RequestReader::Step::NeedsMore:
        waitForInput();
        return false;
    case RequestReader::Step::Head: {
        const Request& request = reader_->request();
        isHead_ = request.method == "HEAD";
        closing_ = !request.keepAlive;
        if (const auto refusal = server_.application().refuse(request)) {
            closing_ = closing_ || request.announcesBody();
            respond(*refusal);
        } else if (request.announcesBody() && input_.empty() &&
                   bridge::equalsIgnoringCase(request.field("Expect"), "100-continue")) {
            std::string_view interim = "HTTP/1.1 100 Continue\r\n\r\n";
            sendSome(interim);
        }
        return true;
    }
    case RequestReader::Step::Complete:
        takeRequest();
        return true;
    case RequestReader::Step::Failed:
        respond(reader_->failure());
        return true;
    }
    return false;
}

void Connection::takeRequest() {
    const auto answer = server_.application().answer(reader_->request(), server_.table());
    if (const auto* response = std::get_if<Response>(&answer)) {
        respond(*response);
    } else if (const auto* job = std::get_if<WriteJob>(&answer)) {
        if (server_.submit(*job, shared_from_this())) {
            state_ = State::Waiting;
        } else {
            Response busy = errorResponse(503, "too many switch at the same time");
            busy.fields.emplace_back("Retry-After", "1");
            respond(busy);
        }
    } else if (server_.mayStream()) {
        startStream();
    } else {
        respond(errorResponse(503, "too many follow the pins at the same time"));
    }
}

void Connection::startStream() {
    server_.application().count(200);
    state_ = State::Streaming;
    since_ = Clock::now();
    reader_.reset();
    input_ = {};
    std::string text = "HTTP/1.1 200 OK\r\n";
    text += securityFields();
    text += STREAM_HEAD;
    text += server_.application().documents().snapshotEvent(server_.table());
    send(std::move(text));
    waitForInput();
}

void Connection::respond(const Response& response) {
    if (!response.delayed) {
        sendNow(response);
    } else if (server_.delayRefusal()) {
        delayed_ = std::make_unique<Response>(response);
        state_ = State::Delayed;
        since_ = Clock::now();
    } else {
        Response refusal = errorResponse(429, "too many wrong passwords at the same time");
        refusal.fields.emplace_back("Retry-After", "1");
        sendNow(refusal);
    }
}

void Connection::sendNow(const Response& response) {
    server_.application().count(response.status);
    closing_ = closing_ || response.close;
    state_ = State::Sending;
    send(response.toString(isHead_, !closing_));
}

void Connection::finishWrite(const Response& response) {
    if (state_ == State::Waiting) {
        respond(response);
        proceed();
    }
}

void Connection::tell(const News& news, std::string_view events) {
    if (!output_.empty()) {
        untold_.add(news);
        return;
    }
    since_ = Clock::now();
    if (sendSome(events) && !events.empty()) {
        output_ = events;
        lastProgress_ = since_;
        waitForRoom();
    }
}

void Connection::send(std::string text) {
    output_ = std::move(text);
    lastProgress_ = Clock::now();
    flush();
}

/// Removes what the system takes; false when the connection has ended.
bool Connection::sendSome(std::string_view& text) {
    while (!text.empty()) {
        asio::error_code error;
        const std::size_t size = socket_.write_some(asio::buffer(text.data(), text.size()), error);
        if (error == asio::error::would_block || error == asio::error::try_again) {
            return true;
        }
        if (error) {
            close();
            return false;
        }
        text.remove_prefix(size);
        lastProgress_ = Clock::now();
    }
    return true;
}

void Connection::flush() {
    while (!output_.empty()) {
        std::string_view rest = output_;
        if (!sendSome(rest)) {
            return;
        }
        output_.erase(0, output_.size() - rest.size());
        if (!output_.empty()) {
            waitForRoom();
            return;
        }
        if (state_ == State::Streaming && untold_.any()) {
            output_ = std::exchange(untold_, {})
                          .toEvents(server_.application().documents(), server_.table());
            since_ = Clock::now();
        }
    }
    output_ = {};
    onSent();
}

void Connection::waitForRoom() {
    if (waitsForRoom_) {
        return;
    }
    waitsForRoom_ = true;
    socket_.async_wait(asio::ip::tcp::socket::wait_write,
                       [self = shared_from_this()](const asio::error_code& error) {
                           self->waitsForRoom_ = false;
                           if (!error && self->state_ != State::Closed) {
                               self->flush();
                               self->proceed();
                           }
                       });
}

void Connection::onSent() {
    if (state_ != State::Sending) {
        return;
    }
    if (closing_) {
        linger();
        return;
    }
    reader_->restart();
    state_ = State::Reading;
    since_ = Clock::now();
    inRequest_ = false;
    isHead_ = false;
}

/// A socket that is closed with something unread in it takes back what was sent.
void Connection::linger() {
    state_ = State::Lingering;
    since_ = Clock::now();
    reader_.reset();
    input_ = {};
    asio::error_code ignored;
    socket_.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    waitForInput();
}

void Connection::checkTime(Clock::time_point now) {
    const Limits& limits = server_.limits();
    if (!output_.empty()) {
        if (now - lastProgress_ >= limits.noProgress) {
            abort();
        }
        return;
    }
    switch (state_) {
    case State::Reading:
        if (inRequest_ && now - requestBegan_ >= limits.request) {
            Response response = errorResponse(408, "the request took too long");
            response.close = true;
            respond(response);
        } else if (!inRequest_ && now - since_ >= limits.idle) {
            close();
        }
        break;
    case State::Delayed:
        if (now - since_ >= limits.refusalDelay) {
            server_.endDelay();
            sendNow(*delayed_);
            delayed_.reset();
            proceed();
        }
        break;
    case State::Streaming:
        if (now - since_ >= limits.comment) {
            tell({}, ":\n\n");
        }
        break;
    case State::Lingering:
        if (now - since_ >= limits.lingering) {
            abort();
        }
        break;
    default:
        break;
    }
}

void Connection::abort() {
    asio::error_code ignored;
    socket_.set_option(asio::socket_base::linger(true, 0), ignored);
    close();
}

void Connection::close() {
    if (state_ == State::Delayed) {
        server_.endDelay();
    }
    state_ = State::Closed;
    asio::error_code ignored;
    socket_.close(ignored);
    output_ = {};
}

} // namespace webbridge
