#pragma once

#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/ReservedPort.h"
#include "support/ServerProcess.h"

struct Outcome {
    std::optional<int> status;
    std::string output;
    std::string errors;
};

/// gpio-client with GPIO_SERVER set to `server`.
std::unique_ptr<support::Process> startClient(const std::string& server,
                                              const std::vector<std::string>& arguments);
Outcome runClient(const std::string& server, const std::vector<std::string>& arguments);

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
