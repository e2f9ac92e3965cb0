#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/Program.h"
#include "support/ReservedPort.h"

struct Outcome {
    int status = 0;
    std::string output;
    std::string errors;
};

/// gpio-client with GPIO_SERVER set to `server`.
std::unique_ptr<Program> startClient(const std::string& server,
                                     const std::vector<std::string>& arguments);
Outcome runClient(const std::string& server, const std::vector<std::string>& arguments);

/// A GpioServer on a loopback port of its own.
class ServerProcess {
public:
    explicit ServerProcess(std::string mode, std::vector<std::string> environment = {});

    std::string address() const { return "127.0.0.1:" + std::to_string(port()); }
    std::uint16_t port() const { return port_.number(); }

    /// Starts the process again after stop().
    void start();

    /// Ends the process at once.
    void stop();

    /// Lets the process answer nothing more, without ending it.
    void freeze() const;

    /// Returns once clients are answered; throws after a long time.
    void waitUntilServing() const;

private:
    std::string mode_;
    std::vector<std::string> environment_;
    support::ReservedPort port_;
    std::unique_ptr<Program> process_;
};
