#include <bit>
#include <charconv>
#include <utility>

#include <gpio-client/Client.h>

#include "Connection.h"
#include "StreamDecoder.h"

namespace gpioclient {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int BOARD_FIRST_INPUT = std::countr_zero(BOARD_GEOMETRY.inputs);

/// The board's mask has one byte for each port; the inputs come first, then outputs 1 to 8.
constexpr PinMask boardMaskToPins(PinMask mask) {
    return ((mask & 0xffff) << BOARD_FIRST_INPUT) | (((mask >> 16) & 0xff) << 1);
}

std::uint64_t payloadNumber(const std::string& answer) {
    std::uint64_t number = 0;
    std::from_chars(answer.data() + 1, answer.data() + answer.size() - 1, number, 16);
    return number;
}

std::string pinName(unsigned pin) {
    return "pin " + std::to_string(pin);
}

} // namespace

class Client::Impl {
    /// Gives the connection up when the operation leaves the byte stream in doubt.
    template <typename Operation> auto guarded(Operation operation) {
        try {
            return operation();
        } catch (const Error&) {
            close();
            throw;
        }
    }

    void requireOpen() const {
        if (!connection_.isOpen()) {
            throw Error(Cause::ConnectionLost, "the connection is closed; connect again");
        }
    }

public:
    Impl(const Endpoint& endpoint, const Options& options)
        : options_(options), decoder_(options.maxQueuedNotices),
          connection_(endpoint, options.connectTimeout, options.isCancelled) {
        backEnd_ = options.backEnd ? *options.backEnd : probe();
        decoder_.setMaskDigits(isBoard() ? 8 : 4);
    }

    ~Impl() { close(); }

    BackEnd backEnd() const { return backEnd_; }
    const Geometry& geometry() const { return geometryOf(backEnd_); }
    bool isBoard() const { return backEnd_ == BackEnd::Board; }
    std::size_t pinDigits() const { return isBoard() ? 2 : 1; }
    const StreamDecoder& decoder() const { return decoder_; }
    bool isOpen() const { return connection_.isOpen(); }
    void close() noexcept { connection_.close(options_.closeTimeout); }
    void interrupt() noexcept { connection_.interrupt(); }
    std::optional<ChangeNotice> takeNotice() { return decoder_.takeNotice(); }

    void requirePin(unsigned pin) const {
        if (!geometry().has(pin)) {
            throw Error(Cause::PinOutOfRange, pinName(pin) + " does not exist: the " +
                                                  toString(backEnd_) + " back end has pins " +
                                                  rangeOf(geometry().allPins()));
        }
    }

    std::string request(char letter, unsigned pin = 0, char value = '0') {
        constexpr std::string_view DIGITS = "0123456789ABCDEF";
        std::string command(1, letter);
        if (isBoard()) {
            command += DIGITS[pin / 16];
        }
        command += DIGITS[pin % 16];
        return send(command + value);
    }

    unsigned requestCount(char letter) {
        const std::uint64_t count = payloadNumber(request(letter));
        if (count > geometry().pinCount) {
            close();
            violation("it counts " + std::to_string(count) + " pins");
        }
        return static_cast<unsigned>(count);
    }

    std::string send(std::string_view command) {
        Answer answer = exchange(command);
        if (answer.isError) {
            throw Error(Cause::ServerError, "the server refused the command " +
                                                std::string(command) + ": " + answer.text);
        }
        return std::move(answer.text);
    }

    std::optional<ChangeNotice> waitForNotice(milliseconds timeout) {
        if (auto notice = decoder_.takeNotice()) {
            return notice;
        }
        requireOpen();
        const Deadline deadline = steady_clock::now() + timeout;
        return guarded([&]() -> std::optional<ChangeNotice> {
            while (true) {
                decoder_.expectNoAnswer();
                const std::string_view bytes = connection_.read(deadline, true);
                if (bytes.empty()) {
                    return std::nullopt;
                }
                decoder_.append(bytes);
                if (auto notice = decoder_.takeNotice()) {
                    return notice;
                }
            }
        });
    }

private:
    /// Three characters are a complete command in test mode and too few for the board's server,
    /// which says so. Both leave the connection and the pins as they were.
    BackEnd probe() {
        const Answer answer = exchange("I00");
        if (!answer.isError) {
            return BackEnd::Test;
        }
        if (answer.text == "INVALID COMMAND: I00") {
            return BackEnd::Board;
        }
        close();
        violation("it refused the first request with \"" + answer.text + "\"");
    }

    Answer exchange(std::string_view command) {
        requireOpen();
        const Deadline deadline = steady_clock::now() + options_.requestTimeout;
        return guarded([&] {
            decoder_.append(connection_.readAvailable());
            decoder_.expectNoAnswer();
            connection_.write(command, deadline);
            return awaitAnswer(command, deadline);
        });
    }

    Answer awaitAnswer(std::string_view command, Deadline deadline) {
        while (steady_clock::now() < deadline) {
            decoder_.append(connection_.read(deadline));
            if (auto answer = decoder_.takeAnswer(command.front())) {
                return std::move(*answer);
            }
        }
        throw Error(Cause::TimedOut, "no complete answer to the command " + std::string(command) +
                                         " within " +
                                         std::to_string(options_.requestTimeout.count()) + " ms");
    }

    Options options_;
    StreamDecoder decoder_;
    Connection connection_;
    BackEnd backEnd_ = BackEnd::Test;
};

Client::Client(const Endpoint& endpoint, const Options& options)
    : impl_(std::make_unique<Impl>(endpoint, options)) {}

Client::~Client() = default;
Client::Client(Client&& other) noexcept = default;
Client& Client::operator=(Client&& other) noexcept = default;

BackEnd Client::backEnd() const noexcept {
    return impl_->backEnd();
}

const Geometry& Client::geometry() const noexcept {
    return impl_->geometry();
}

std::size_t Client::commandLength() const noexcept {
    return impl_->pinDigits() + 2;
}

bool Client::isOpen() const noexcept {
    return impl_->isOpen();
}

void Client::close() noexcept {
    impl_->close();
}

std::size_t Client::droppedNotices() const noexcept {
    return impl_->decoder().droppedNotices();
}

void Client::checkReadable(unsigned pin) const {
    impl_->requirePin(pin);
    if (!contains(geometry().readable, pin)) {
        throw Error(Cause::Unsupported, "the level of output " + pinName(pin) +
                                            " cannot be read back: the server remembers outputs " +
                                            rangeOf(geometry().readable & geometry().writable) +
                                            " only; set the pin to be sure of its level");
    }
}

void Client::checkWritable(unsigned pin) const {
    impl_->requirePin(pin);
    if (!contains(geometry().writable, pin)) {
        throw Error(Cause::Unsupported, pinName(pin) +
                                            " is an input of the board and cannot be set; the "
                                            "board's outputs are pins " +
                                            rangeOf(geometry().outputs));
    }
}

void Client::checkDirectionSettable(unsigned pin) const {
    impl_->requirePin(pin);
    if (!geometry().canSetDirections) {
        throw Error(Cause::Unsupported, "the directions of the board's pins are fixed: pins " +
                                            rangeOf(geometry().outputs) + " are outputs, pins " +
                                            rangeOf(geometry().inputs) + " are inputs");
    }
}

Level Client::readPin(unsigned pin) {
    checkReadable(pin);
    // The board's server answers 0 for every output, but its mask has what was written last.
    const bool high = backEnd() == BackEnd::Board && contains(geometry().writable, pin)
                          ? readLevels().isHigh(pin)
                          : payloadNumber(impl_->request('R', pin)) != 0;
    return high ? Level::High : Level::Low;
}

void Client::writePin(unsigned pin, Level level) {
    checkWritable(pin);
    if (payloadNumber(impl_->request('W', pin, level == Level::High ? '1' : '0')) == 0) {
        throw Error(Cause::RequestFailed, "the server could not set " + pinName(pin) +
                                              "; check that the board is connected");
    }
}

Levels Client::readLevels() {
    const PinMask mask = payloadNumber(impl_->request('A'));
    const PinMask pins = backEnd() == BackEnd::Board ? boardMaskToPins(mask) : mask;
    return {pins & geometry().readable, geometry().readable};
}

Levels Client::readSettledLevels() {
    const std::uint64_t before = impl_->decoder().noticesSeen();
    Levels levels = readLevels();
    if (impl_->decoder().noticesSeen() != before) {
        // Whichever of both is newer, a level that differs from the last notice will bring another.
        const PinMask inputs = geometry().inputs;
        levels.high = (levels.high & ~inputs) | (impl_->decoder().lastHigh() & inputs);
    }
    return levels;
}

Direction Client::direction(unsigned pin) {
    impl_->requirePin(pin);
    const bool one = payloadNumber(impl_->request('D', pin)) != 0;
    // The board's server answers 1 for its outputs, the other way round than the test back end.
    const bool input = (backEnd() == BackEnd::Board) != one;
    return input ? Direction::Input : Direction::Output;
}

void Client::setDirection(unsigned pin, Direction direction) {
    checkDirectionSettable(pin);
    if (payloadNumber(impl_->request('S', pin, direction == Direction::Input ? '1' : '0')) == 0) {
        throw Error(Cause::RequestFailed,
                    "the server could not change the direction of " + pinName(pin));
    }
}

PinMask Client::inputPins() {
    return payloadNumber(impl_->request('P')) & geometry().allPins();
}

unsigned Client::inputCount() {
    return impl_->requestCount('I');
}

unsigned Client::outputCount() {
    return impl_->requestCount('O');
}

std::string Client::firmwareVersion() {
    if (backEnd() != BackEnd::Board) {
        throw Error(Cause::Unsupported, "the test back end has no firmware");
    }
    const std::string answer = impl_->request('V');
    return answer.substr(1, answer.size() - 2);
}

void Client::enableValueDebugging() {
    impl_->request('B');
}

void Client::listen(bool interested) {
    impl_->request(interested ? 'L' : 'K');
}

std::optional<ChangeNotice> Client::waitForChange(milliseconds timeout) {
    return impl_->waitForNotice(timeout);
}

void Client::interrupt() noexcept {
    impl_->interrupt();
}

std::optional<ChangeNotice> Client::takeQueuedChange() {
    return impl_->takeNotice();
}

std::string Client::raw(std::string_view command) {
    if (command.empty() || command.size() > commandLength()) {
        throw Error(Cause::InvalidArgument, "a raw command for this server has 1 to " +
                                                std::to_string(commandLength()) + " characters");
    }
    if (command.find('\n') != std::string_view::npos ||
        command.find('\0') != std::string_view::npos) {
        throw Error(Cause::InvalidArgument,
                    "a raw command holds no line ends and no zero bytes: a line end would close "
                    "the connection");
    }
    return impl_->send(command);
}

std::chrono::nanoseconds Client::ping() {
    const auto start = steady_clock::now();
    impl_->request('I');
    return steady_clock::now() - start;
}

} // namespace gpioclient
