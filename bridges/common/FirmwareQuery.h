#pragma once

#include <chrono>
#include <string>

#include <gpio-client/Client.h>

namespace bridge {

/// Finds out which firmware a board has; a server that has just met its board does not know yet.
/// For the thread of the connection.
class FirmwareQuery {
public:
    /// Forgets the answer: a new connection may lead to another board, or to none.
    void restart();

    /// Asks when it is time, if there is a board; often until it has told its version. A failure
    /// leaves the answer as it was, and the loss to be found by whoever follows the connection.
    void askIfDue(gpioclient::Client& client);

    /// The newest answer; empty before the first.
    const std::string& answer() const { return answer_; }

    /// Whether an answer is a version.
    static bool isVersion(const std::string& answer);

private:
    std::string answer_;
    std::chrono::steady_clock::time_point nextQuery_;
};

} // namespace bridge
