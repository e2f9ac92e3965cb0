#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Http.h"

namespace webbridge {

/// Reads one request after the other from the bytes of a connection, whatever pieces they come in.
/// Takes no more than its limits of any of them.
class RequestReader {
public:
    static constexpr std::size_t HEAD_LIMIT = 8192;
    static constexpr std::size_t BODY_LIMIT = 4096;

    enum class Step {
        NeedsMore, ///< The request is not complete.
        Head,      ///< The header is complete; told once, before any of the body is read.
        Complete,
        Failed ///< failure() says why; the rest of the connection means nothing.
    };

    RequestReader();
    ~RequestReader();

    /// Goes on with the bytes received, and removes from their front what has been used. After
    /// Complete, restart() makes it ready for the next request; after Failed nothing does.
    Step read(std::string& bytes);

    /// After Head all but the body.
    const Request& request() const { return request_; }

    const Response& failure() const { return failure_; }

    void restart();

private:
    struct Parser;

    Step fail(unsigned status, const char* text);
    Step readHead(std::string& bytes);
    Step readBody(std::string& bytes);
    bool takeHead();

    std::unique_ptr<Parser> parser_; ///< Made with the first byte of a request.
    Request request_;
    Response failure_;
    std::size_t bodyBytes_ = 0;
    bool headDone_ = false;
    bool failed_ = false;
};

} // namespace webbridge
