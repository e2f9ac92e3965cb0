#include "StreamDecoder.h"

#include <algorithm>
#include <charconv>

#include <gpio-client/Error.h>

namespace gpioclient {

namespace {

constexpr std::size_t MAX_MASK_DIGITS = 16;
constexpr std::size_t MIN_MASK_DIGITS = 4;
constexpr std::size_t MAX_VERSION_LENGTH = 64;
constexpr std::size_t MAX_TEXT_LENGTH = 256;

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

bool isPrintable(char c) {
    return c >= ' ' && c <= '~';
}

std::string quoted(std::string_view text) {
    constexpr std::size_t SHOWN = 40;
    std::string result = "\"";
    for (const char c : text.substr(0, SHOWN)) {
        result += isPrintable(c) ? c : '?';
    }
    return result + (text.size() > SHOWN ? "...\"" : "\"");
}

PinMask parseMask(std::string_view digits) {
    PinMask mask = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), mask, 16);
    return mask;
}

std::size_t hexRun(std::string_view text) {
    const auto* end = std::find_if_not(text.begin(), text.end(), isHexDigit);
    return static_cast<std::size_t>(end - text.begin());
}

bool isMaskLength(std::size_t digits) {
    return digits >= MIN_MASK_DIGITS && digits <= MAX_MASK_DIGITS;
}

std::optional<ChangeNotice> parseNotice(std::string_view text) {
    const std::size_t changedDigits = hexRun(text.substr(1));
    const std::size_t bar = 1 + changedDigits;
    if (!isMaskLength(changedDigits) || bar >= text.size() || text[bar] != '|') {
        return std::nullopt;
    }
    const std::size_t levelDigits = hexRun(text.substr(bar + 1));
    if (!isMaskLength(levelDigits) || bar + 1 + levelDigits + 1 != text.size()) {
        return std::nullopt;
    }
    return ChangeNotice{parseMask(text.substr(1, changedDigits)),
                        parseMask(text.substr(bar + 1, levelDigits)),
                        std::chrono::system_clock::now()};
}

bool mayBecomeNotice(std::string_view text) {
    const std::size_t changedDigits = hexRun(text.substr(1));
    const std::size_t bar = 1 + changedDigits;
    if (bar == text.size()) {
        return changedDigits <= MAX_MASK_DIGITS;
    }
    if (!isMaskLength(changedDigits) || text[bar] != '|') {
        return false;
    }
    const std::size_t levelDigits = hexRun(text.substr(bar + 1));
    return bar + 1 + levelDigits == text.size() && levelDigits <= MAX_MASK_DIGITS;
}

/// What stands between the opening and the closing letter of an answer.
struct Payload {
    bool (*accepts)(char);
    std::size_t min;
    std::size_t max;
};

Payload payloadOf(char letter, std::size_t maskDigits) {
    switch (letter) {
    case 'A':
    case 'P':
        return {isHexDigit, maskDigits, MAX_MASK_DIGITS};
    case 'I':
    case 'O':
        return {isHexDigit, MIN_MASK_DIGITS, MAX_MASK_DIGITS};
    case 'D':
    case 'R':
    case 'S':
    case 'W':
        return {[](char c) { return c == '0' || c == '1'; }, 1, 1};
    case 'K':
    case 'L':
        return {[](char) { return false; }, 0, 0};
    case 'V':
        return {isPrintable, 0, MAX_VERSION_LENGTH};
    default:
        violation("an answer to a command that has none");
    }
}

constexpr std::string_view DEBUG_ANSWER = "DBG";

} // namespace

void violation(const std::string& what) {
    throw Error(Cause::ProtocolViolation,
                "the server does not speak the expected protocol: " + what);
}

void StreamDecoder::append(std::string_view bytes) {
    for (const char byte : bytes) {
        if (byte == '\n') {
            continue;
        }
        text_ += byte;
        if (byte == 'U') {
            takeNoticeFromEnd();
        }
        if (text_.size() > MAX_TEXT_LENGTH) {
            violation("a message without end, beginning with " + quoted(text_));
        }
    }
}

void StreamDecoder::takeNoticeFromEnd() {
    if (text_.size() < 2) {
        return;
    }
    const std::size_t start = text_.rfind('U', text_.size() - 2);
    if (start == std::string::npos) {
        return;
    }
    const auto notice = parseNotice(std::string_view(text_).substr(start));
    if (!notice) {
        return;
    }
    text_.resize(start);
    ++notices_;
    lastHigh_ = notice->high;
    if (queue_.size() >= maxQueuedNotices_ && !queue_.empty()) {
        queue_.pop_front();
        ++dropped_;
    }
    queue_.push_back(*notice);
}

std::size_t StreamDecoder::bodySize() const {
    const std::size_t start = text_.rfind('U');
    const bool pending =
        start != std::string::npos && mayBecomeNotice(std::string_view(text_).substr(start));
    return pending ? start : text_.size();
}

void StreamDecoder::expectNoAnswer() const {
    if (const std::size_t size = bodySize(); size > 0) {
        violation("unexpected " + quoted(std::string_view(text_).substr(0, size)));
    }
}

std::optional<Answer> StreamDecoder::takeAnswer(char letter) {
    const std::string_view body(text_.data(), bodySize());
    if (body.empty()) {
        return std::nullopt;
    }
    if (body.front() == '^') {
        return takeError();
    }
    const std::size_t size = answerSize(letter, body);
    if (size == 0) {
        return std::nullopt;
    }
    return Answer{false, take(size)};
}

std::optional<Answer> StreamDecoder::takeError() {
    const std::size_t close = text_.find('^', 1);
    if (close == std::string::npos) {
        return std::nullopt;
    }
    const std::string framed = take(close + 1);
    const std::size_t first = std::min(framed.find_first_not_of("^ "), framed.size());
    return Answer{true, framed.substr(first, framed.find_last_not_of("^ ") + 1 - first)};
}

/// Characters in the complete answer at the front, 0 while it is incomplete.
std::size_t StreamDecoder::answerSize(char letter, std::string_view body) const {
    if (letter == 'B') {
        if (!DEBUG_ANSWER.starts_with(body.substr(0, DEBUG_ANSWER.size()))) {
            violation("unexpected " + quoted(body));
        }
        return body.size() >= DEBUG_ANSWER.size() ? DEBUG_ANSWER.size() : 0;
    }
    const Payload payload = payloadOf(letter, maskDigits_);
    if (body.front() != letter) {
        violation("unexpected " + quoted(body));
    }
    for (std::size_t i = 1; i < body.size(); ++i) {
        const std::size_t length = i - 1;
        if (body[i] == letter && length >= payload.min) {
            return i + 1;
        }
        if (!payload.accepts(body[i]) || length >= payload.max) {
            violation("malformed answer " + quoted(body));
        }
    }
    return 0;
}

std::string StreamDecoder::take(std::size_t size) {
    std::string front = text_.substr(0, size);
    text_.erase(0, size);
    return front;
}

std::optional<ChangeNotice> StreamDecoder::takeNotice() {
    if (queue_.empty()) {
        return std::nullopt;
    }
    const ChangeNotice notice = queue_.front();
    queue_.pop_front();
    return notice;
}

} // namespace gpioclient
