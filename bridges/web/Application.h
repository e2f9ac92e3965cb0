#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>

#include "Documents.h"
#include "Guard.h"
#include "Http.h"
#include "PinTable.h"
#include "WriteJob.h"

namespace webbridge {

/// What every request is answered with, apart from sockets and threads.
class Application {
public:
    struct Config {
        Guard guard;
        Documents documents;
        bool readOnly = false;
    };

    /// The request asks for a stream of events.
    struct StartEvents {};

    using Answer = std::variant<Response, StartEvents, WriteJob>;

    explicit Application(Config config);

    /// What is wrong with a request by its header alone; the checks have an order that clients may
    /// rely on. Nothing when the body may come.
    std::optional<Response> refuse(const Request& request) const;

    /// Answers a complete request that was not refused.
    Answer answer(const Request& request, const PinTable& table) const;

    static Response answerTo(WriteOutcome outcome);

    /// Counts a request by the status that answered it.
    void count(unsigned status) { ++requests_[status]; }

    const Documents& documents() const { return config_.documents; }

private:
    struct Route;

    std::optional<Response> refuseWrite(const Request& request) const;
    Answer answerWrite(const Request& request, const PinTable& table) const;

    Config config_;
    std::map<unsigned, std::uint64_t> requests_;
};

} // namespace webbridge
