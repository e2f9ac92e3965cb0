#pragma once

#include <cstddef>
#include <string>

namespace fuzz {

struct Read {
    enum Kind { BYTE, NOTHING, FAILED, REFUSED };

    Kind kind;
    unsigned char value = 0;
};

enum class Write { Done, Failed, Refused };

/// The link's behaviour, written as text. A backslash opens an event: "\n" a read of nothing, "\f"
/// one that fails, "\r" one that is refused, "\w" and "\x" a write that fails or is refused;
/// followed by anything else it stands for that byte. All other bytes are received as they are. A
/// write looks only at what comes next; a read passes over the events of writes. At the end, reads
/// bring nothing.
class Events {
public:
    explicit Events(std::string text) : script_(std::move(text)) {}

    Read read();
    Write write();
    bool isAtEnd() const { return position_ >= script_.size(); }

private:
    char eventAhead() const;

    std::string script_;
    std::size_t position_ = 0;
};

/// The messages of the board, found by looking at everything that one operation has received.
class StreamModel {
public:
    explicit StreamModel(const std::string& script) : events_(script) {}

    /// 'R' asks for the inputs, 'V' for the version; everything else reads one message.
    bool perform(char operation);

    /// Nothing but empty reads will follow.
    bool isAtEnd() const { return events_.isAtEnd(); }

    unsigned char portA = 0;
    unsigned char portB = 0;
    bool available = false;
    std::string firmwareVersion = "Unknown";
    std::string sent;

private:
    bool askForInputs();
    bool askForVersion();
    bool readMessage();
    bool send(const std::string& request);
    bool receive();
    bool endsWithMessage(char letter) const;
    unsigned char fromEnd(std::size_t distance) const;
    void takeInputs();

    Events events_;
    std::string received_;
};

} // namespace fuzz
