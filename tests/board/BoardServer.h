#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SimulatedPart.h"
#include "support/Client.h"
#include "support/Eventually.h"
#include "support/ReservedPort.h"
#include "support/ServerProcess.h"
#include "support/VirtualBoard.h"

/// The server in board mode on a virtual board. Its long sleeps last a tenth of their time, and
/// the board comes back from a restart after 50 ms. Where SimulatedPart::isWanted(), the board runs
/// the real firmware, which takes its own time.
class BoardServer {
public:
    explicit BoardServer(const std::vector<std::string>& boardOptions = {},
                         const std::vector<std::string>& serverArguments = {},
                         const std::vector<std::string>& firstCommands = {},
                         const std::vector<std::string>& environment = {});

    support::Client connect() const { return support::Client(port.number()); }

    /// A client whose interest in changes the server knows of.
    support::Client connectListener();

    /// Waits until the board is ready, and the server launched, for the n-th time.
    void waitUntilServing(std::size_t times = 1) const;

    bool isListening() const;

    /// Waits until nothing listens any more, and expects that a client is refused then.
    void expectRefusal() const;

    /// Unplugs the board, expects that clients are refused, and plugs it in again.
    void comeBack();

    /// A new client gets an answer.
    testing::AssertionResult serves() const;

    std::unique_ptr<SimulatedPart> part;
    support::VirtualBoard board;
    support::ReservedPort port;
    support::ServerProcess server;

private:
    std::size_t listeners_ = 0;
};

/// One that serves already.
class ServingBoard : public BoardServer {
public:
    explicit ServingBoard(const std::vector<std::string>& boardOptions = {})
        : BoardServer(boardOptions) {
        waitUntilServing();
    }
};
