#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include <gpio-client/Types.h>

namespace gpioclient {

/// Throws Error (ProtocolViolation) that tells what the server has done.
[[noreturn]] void violation(const std::string& what);

/// An answer of the server without its line end.
struct Answer {
    bool isError = false;
    std::string text; ///< The whole answer, or the error text without its frame and blanks.
};

/// Takes the server's byte stream apart into answers, error texts and change notices.
///
/// The server writes a notice and an answer from different threads, each text and its line end
/// separately, so notices and line ends may stand anywhere. All messages show their own end, so
/// line ends mean nothing: an answer is ready before its own arrives. Throws Error
/// (ProtocolViolation) for anything else.
class StreamDecoder {
public:
    explicit StreamDecoder(std::size_t maxQueuedNotices) : maxQueuedNotices_(maxQueuedNotices) {}

    void append(std::string_view bytes);

    /// Digits that A and P answers have at least.
    void setMaskDigits(std::size_t digits) { maskDigits_ = digits; }

    /// The answer to the command with this letter, once it is complete.
    std::optional<Answer> takeAnswer(char letter);

    std::optional<ChangeNotice> takeNotice();
    std::size_t droppedNotices() const { return dropped_; }
    std::uint64_t noticesSeen() const { return notices_; }

    /// Inputs that were high in the last notice seen, whether it is still queued or not.
    PinMask lastHigh() const { return lastHigh_; }

    /// Throws unless all that is left is the beginning of a notice at most.
    void expectNoAnswer() const;

private:
    void takeNoticeFromEnd();
    std::size_t bodySize() const;
    std::optional<Answer> takeError();
    std::size_t answerSize(char letter, std::string_view body) const;
    std::string take(std::size_t size);

    std::string text_;
    std::uint64_t notices_ = 0;
    PinMask lastHigh_ = 0;
    std::size_t maskDigits_ = 4;
    std::size_t maxQueuedNotices_;
    std::size_t dropped_ = 0;
    std::deque<ChangeNotice> queue_;
};

} // namespace gpioclient
