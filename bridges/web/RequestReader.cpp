#include "RequestReader.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include "Text.h"

namespace http = boost::beast::http;

namespace webbridge {

namespace {

/// Chunk sizes, extensions and trailers beside the body itself.
constexpr std::size_t BODY_BYTES_LIMIT = RequestReader::BODY_LIMIT + RequestReader::HEAD_LIMIT;

constexpr std::string_view HEAD_END = "\r\n\r\n";

/// Whether this may become a request; what speaks something else need not be waited for.
bool beginsWithMethod(std::string_view bytes) {
    const std::string_view method = bytes.substr(0, bytes.find(' '));
    return method.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_") ==
               std::string_view::npos &&
           !bytes.starts_with(' ');
}

std::string toString(boost::beast::string_view text) {
    return {text.data(), text.size()};
}

} // namespace

struct RequestReader::Parser : http::request_parser<http::string_body> {
    Parser() {
        header_limit(HEAD_LIMIT);
        // What is too long is found out here, after all that is to be checked before it.
        body_limit((std::numeric_limits<std::uint64_t>::max)());
        eager(false);
    }
};

RequestReader::RequestReader() = default;
RequestReader::~RequestReader() = default;

void RequestReader::restart() {
    parser_.reset();
    request_ = {};
    bodyBytes_ = 0;
    headDone_ = false;
}

RequestReader::Step RequestReader::fail(unsigned status, const char* text) {
    failed_ = true;
    failure_ = errorResponse(status, text);
    failure_.close = true;
    return Step::Failed;
}

RequestReader::Step RequestReader::read(std::string& bytes) {
    if (failed_) {
        return Step::Failed;
    }
    if (!parser_) {
        // An empty line before a request is left over from the one before.
        while (bytes.starts_with("\r\n")) {
            bytes.erase(0, 2);
        }
        if (bytes.empty() || bytes == "\r") {
            return Step::NeedsMore;
        }
        parser_ = std::make_unique<Parser>();
    }
    return headDone_ ? readBody(bytes) : readHead(bytes);
}

/// The parser gets the whole header at once: what it says of a part depends on where that ends.
RequestReader::Step RequestReader::readHead(std::string& bytes) {
    if (!beginsWithMethod(bytes)) {
        return fail(400, "this is no HTTP request");
    }
    const std::size_t end = bytes.find(HEAD_END);
    if (std::min(end, bytes.size()) > HEAD_LIMIT - HEAD_END.size()) {
        return fail(431, "the header is longer than 8 KiB");
    }
    if (end == std::string::npos) {
        return Step::NeedsMore;
    }
    boost::system::error_code error;
    const std::size_t used = parser_->put(boost::asio::buffer(bytes), error);
    bytes.erase(0, used);
    if (error || !parser_->is_header_done()) {
        return fail(400, "this is no HTTP request");
    }
    headDone_ = true;
    return takeHead() ? Step::Head : Step::Failed;
}

bool RequestReader::takeHead() {
    const auto& head = parser_->get();
    request_.method = toString(head.method_string());
    request_.target = toString(head.target());
    for (const auto& field : head) {
        request_.fields.emplace_back(toString(field.name_string()), toString(field.value()));
    }
    request_.keepAlive = parser_->keep_alive();
    if (head.version() != 10 && head.version() != 11) {
        fail(400, "only HTTP/1.0 and HTTP/1.1 are spoken here");
        return false;
    }
    // Whoever stands in front must see the same end of the request as this side does.
    const std::size_t codings = request_.count("Transfer-Encoding");
    const std::size_t lengths = request_.count("Content-Length");
    if (codings + lengths > 1) {
        fail(400, "a request has one length");
        return false;
    }
    if (codings == 1) {
        if (head.version() == 10 ||
            !bridge::equalsIgnoringCase(trimmed(request_.field("Transfer-Encoding")), "chunked") ||
            !parser_->chunked()) {
            fail(501, "the only transfer coding known here is chunked");
            return false;
        }
        request_.chunked = true;
    } else if (lengths == 1) {
        const auto length = parser_->content_length();
        const std::string_view text = trimmed(request_.field("Content-Length"));
        if (!length || text.empty() || text.find_first_not_of("0123456789") != text.npos) {
            fail(400, "the Content-Length is no number");
            return false;
        }
        request_.contentLength = *length;
    }
    return true;
}

RequestReader::Step RequestReader::readBody(std::string& bytes) {
    parser_->eager(true);
    while (!parser_->is_done()) {
        if (bytes.empty()) {
            return Step::NeedsMore;
        }
        boost::system::error_code error;
        const std::size_t used = parser_->put(boost::asio::buffer(bytes), error);
        bytes.erase(0, used);
        bodyBytes_ += used;
        if (parser_->get().body().size() > BODY_LIMIT ||
            bodyBytes_ + (error == http::error::need_more ? bytes.size() : 0) > BODY_BYTES_LIMIT) {
            return fail(413, "the body is longer than 4 KiB");
        }
        if (error == http::error::need_more) {
            return Step::NeedsMore;
        }
        if (error) {
            return fail(400, "the body is no HTTP");
        }
    }
    request_.body = std::move(parser_->get().body());
    return Step::Complete;
}

} // namespace webbridge
