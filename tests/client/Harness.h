#pragma once

#include <csignal>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <gpio-client/Error.h>

#include "support/FakeServer.h"
#include "support/ReservedPort.h"
#include "support/ServerProcess.h"

template <typename Action> gpioclient::Cause causeOf(Action action) {
    try {
        action();
    } catch (const gpioclient::Error& error) {
        return error.cause();
    }
    ADD_FAILURE() << "nothing was thrown";
    return gpioclient::Cause::InvalidArgument;
}

struct Outcome {
    std::optional<int> status;
    std::string output;
    std::string errors;

    friend bool operator==(const Outcome&, const Outcome&) = default;
    friend void PrintTo(const Outcome& outcome, std::ostream* stream) {
        *stream << "status " << testing::PrintToString(outcome.status) << ", output \""
                << outcome.output << "\", errors \"" << outcome.errors << '"';
    }
};

/// gpio-client with GPIO_SERVER set to `server`.
std::unique_ptr<support::Process> startClient(const std::string& server,
                                              const std::vector<std::string>& arguments);
Outcome runClient(const std::string& server, const std::vector<std::string>& arguments);

/// The same with a fake server of its own.
Outcome runClient(support::FakeServer::Script server, const std::vector<std::string>& arguments);

/// A script of the shell, in which $CLIENT is gpio-client, with the same environment.
std::unique_ptr<support::Process> startShell(const std::string& server, const std::string& script);

/// A GpioServer on a loopback port of its own, which it keeps when it is started again.
class RestartableServer {
public:
    explicit RestartableServer(const std::string& mode, std::vector<std::string> environment = {});

    std::string address() const { return "127.0.0.1:" + std::to_string(port()); }
    std::uint16_t port() const { return port_.number(); }

    /// Starts the process again after stop(), and waits until it listens.
    void start();

    /// Ends the process at once.
    void stop() { process_.reset(); }

    /// Lets the process answer nothing more, without ending it.
    void freeze() { process_->freeze(); }

private:
    support::ReservedPort port_;
    support::ServerOptions options_;
    std::optional<support::ServerProcess> process_;
};

/// gpio-client and a server of its own.
class ProgramOnServer : public testing::Test {
protected:
    explicit ProgramOnServer(const std::string& mode = "--test",
                             std::vector<std::string> environment = {})
        : server_(mode, std::move(environment)) {}

    Outcome run(const std::vector<std::string>& arguments) const {
        return runClient(server_.address(), arguments);
    }

    void expectOutput(const std::vector<std::string>& arguments, const std::string& output) const {
        EXPECT_EQ(run(arguments), (Outcome{0, output, ""}));
    }

    std::unique_ptr<support::Process> start(const std::vector<std::string>& arguments) const {
        return startClient(server_.address(), arguments);
    }

    /// Returns once every change will be seen.
    std::unique_ptr<support::Process> startMonitor(std::vector<std::string> options = {}) const;

    RestartableServer server_;
};
