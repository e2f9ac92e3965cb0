#include "FirmwareQuery.h"

#include <gpio-client/Error.h>

namespace bridge {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds INTERVAL{5000};
constexpr milliseconds UNKNOWN_INTERVAL{500};

} // namespace

bool FirmwareQuery::isVersion(const std::string& answer) {
    return !answer.empty() && answer != "Unknown";
}

void FirmwareQuery::restart() {
    answer_.clear();
    nextQuery_ = {};
}

void FirmwareQuery::askIfDue(gpioclient::Client& client) {
    const auto now = std::chrono::steady_clock::now();
    if (client.backEnd() != gpioclient::BackEnd::Board || now < nextQuery_) {
        return;
    }
    try {
        answer_ = client.firmwareVersion();
    } catch (const gpioclient::Error&) { // NOLINT(bugprone-empty-catch): found by others
    }
    nextQuery_ = now + (isVersion(answer_) ? INTERVAL : UNKNOWN_INTERVAL);
}

} // namespace bridge
