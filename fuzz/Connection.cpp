// A client's bytes in arbitrary pieces: everything that it gets back, and what the server is told,
// compared with the model's.

#include "io/Connection.h"

#include <array>
#include <memory>

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Check.h"
#include "CommandModel.h"
#include "GpioConnectionHandler.h"
#include "GpioConnectionMonitor.h"
#include "Input.h"
#include "ScriptedBoard.h"
#include "ftdi/FtdiCommandHandler.h"
#include "test/TestCommandHandler.h"

namespace {

/// Sends a piece whenever the server has read all of the one before, so that pieces never join,
/// and takes what comes back meanwhile, so that the server never blocks.
class Peer {
public:
    explicit Peer(std::vector<std::string> toSend) : pieces_(std::move(toSend)) {
        fuzz::expectTrue("no socket pair",
                         socketpair(AF_UNIX, SOCK_STREAM, 0, descriptors_.data()) == 0);
    }

    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { close(mine()); }

    /// The descriptor at the server's end; who asks for it closes it.
    int serverEnd() const { return descriptors_[1]; }

    void takeAndSend() {
        takeAnswers();
        int unread = 0;
        ioctl(serverEnd(), FIONREAD, &unread);
        if (unread > 0) {
            return;
        }
        if (next_ == leavesBefore_) {
            shutdown(mine(), SHUT_RD);
        }
        if (next_ < pieces_.size()) {
            const std::string& piece = pieces_[next_++];
            fuzz::expectEqual("bytes sent", static_cast<long>(piece.size()),
                              write(mine(), piece.data(), piece.size()));
        } else {
            shutdown(mine(), SHUT_WR);
        }
    }

    void takeAnswers() {
        std::array<char, 4096> buffer{};
        ssize_t count = 0;
        while ((count = recv(mine(), buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0) {
            answers.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }

    /// From the piece with this number on the peer takes no more answers.
    void leaveBefore(std::size_t number) { leavesBefore_ = number; }

    std::string answers;

private:
    int mine() const { return descriptors_[0]; }

    std::array<int, 2> descriptors_{-1, -1};
    std::vector<std::string> pieces_;
    std::size_t next_ = 0;
    std::size_t leavesBefore_ = SIZE_MAX;
};

/// The back end proper; the peer gets its turn whenever the server has read something.
template <typename BackEnd> class Interleaved : public BackEnd {
public:
    explicit Interleaved(Peer& client) : peer_(client) {}

    std::string handleCommand(std::string command) override {
        peer_.takeAndSend();
        return BackEnd::handleCommand(std::move(command));
    }

private:
    Peer& peer_;
};

struct Server : public GpioConnectionMonitor {
    void connectionEnded(io::Connection* connection) override { ended.push_back(connection); }

    void inputPinListeningInterestUpdated(bool interested) override {
        interests.push_back(interested ? 'L' : 'K');
    }

    std::vector<io::Connection*> ended;
    std::string interests;
};

struct Expected {
    std::string answers;
    std::string interests;
};

/// What one read delivers for each of the pieces.
std::vector<std::string> readsOf(const std::vector<std::string>& pieces, std::size_t limit) {
    std::vector<std::string> reads;
    for (const std::string& piece : pieces) {
        for (std::size_t begin = 0; begin < piece.size(); begin += limit) {
            reads.emplace_back(piece.substr(begin, limit).c_str());
        }
    }
    return reads;
}

template <typename Model>
Expected expectedFor(const std::vector<std::string>& reads, Model& model) {
    Expected expected;
    for (std::string command : reads) {
        if (command.empty() || command == "\n") {
            break;
        }
        if (command.ends_with('\n')) {
            command.pop_back();
        }
        const fuzz::Outcome outcome = model.handle(command);
        if (outcome.kind == fuzz::Outcome::UNAVAILABLE) {
            break;
        }
        expected.answers += fuzz::bytesFor(outcome);
        if (outcome.text == "LL" || outcome.text == "KK") {
            expected.interests.push_back(outcome.text.front());
        }
    }
    return expected;
}

void serve(AbstractCommandHandler& backEnd, Peer& peer, Server& server) {
    io::Connection connection(peer.serverEnd(), sockaddr_in{}, backEnd.PROTOCOL_SIZE);
    GpioConnectionHandler handler(&connection, &backEnd);
    handler.setConnectionMonitor(&server);
    peer.takeAndSend();
    handler.run();
    peer.takeAnswers();
    fuzz::expectTrue("the connection stays open", connection.isClosed());
    fuzz::expectEqual("ends told to the server", 1, static_cast<long>(server.ended.size()));
    fuzz::expectTrue("another connection's end was told", server.ended.front() == &connection);
    if (!server.interests.empty()) {
        fuzz::expectEqual("interest", server.interests.back() == 'L' ? 1 : 0,
                          handler.isListeningForInputPinChanges() ? 1 : 0);
    }
}

/// A peer that left may have missed the last answers, and the server may have given up on it.
void compare(const Expected& expected, const Peer& peer, const Server& server, bool left) {
    if (!left) {
        fuzz::expectEqual("answers", expected.answers, peer.answers);
        fuzz::expectEqual("interests", expected.interests, server.interests);
        return;
    }
    fuzz::expectTrue("answers after those expected", expected.answers.starts_with(peer.answers));
    fuzz::expectTrue("interests after those expected",
                     expected.interests.starts_with(server.interests));
}

std::vector<std::string> piecesThatAreSent(fuzz::Input& input) {
    std::vector<std::string> pieces = input.pieces();
    std::erase_if(pieces, [](const std::string& piece) { return piece.empty(); });
    return pieces;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const unsigned char flags = input.byte();
    const bool board = (flags & 1U) != 0;
    const bool leaves = (flags & 2U) != 0;
    const unsigned char leavesBefore = leaves ? input.byte() : 0;
    fuzz::BoardModel boardModel;
    boardModel.available = (flags & 4U) == 0;
    const std::vector<std::string> pieces = piecesThatAreSent(input);

    Peer peer(pieces);
    if (leaves) {
        peer.leaveBefore(leavesBefore);
    }
    Server server;
    if (board) {
        ScriptedBoard service(boardModel);
        Interleaved<FtdiCommandHandler> backEnd(peer);
        backEnd.setFtdiService(&service);
        serve(backEnd, peer, server);
        compare(expectedFor(readsOf(pieces, 4), boardModel), peer, server, leaves);
    } else {
        fuzz::SimulatedModel model;
        Interleaved<TestCommandHandler> backEnd(peer);
        serve(backEnd, peer, server);
        compare(expectedFor(readsOf(pieces, 3), model), peer, server, leaves);
    }
    return 0;
}
