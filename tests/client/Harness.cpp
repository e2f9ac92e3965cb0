#include "Harness.h"

#include <csignal>
#include <stdexcept>

#include <gpio-client/Client.h>

#include "support/Eventually.h"

std::unique_ptr<Program> startClient(const std::string& server,
                                     const std::vector<std::string>& arguments) {
    std::vector<std::string> command{GPIO_CLIENT_PATH};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<Program>(command, std::vector<std::string>{"GPIO_SERVER=" + server});
}

Outcome runClient(const std::string& server, const std::vector<std::string>& arguments) {
    const auto program = startClient(server, arguments);
    const int status = program->wait();
    return {status, program->output(), program->errors()};
}

ServerProcess::ServerProcess(std::string mode, std::vector<std::string> environment)
    : mode_(std::move(mode)), environment_(std::move(environment)) {
    start();
}

void ServerProcess::start() {
    process_ = std::make_unique<Program>(
        std::vector<std::string>{GPIO_SERVER_PATH, "--port=" + std::to_string(port_.number()),
                                 mode_},
        environment_);
    waitUntilServing();
}

void ServerProcess::stop() {
    process_->signal(SIGKILL);
    process_->wait();
}

void ServerProcess::freeze() const {
    process_->signal(SIGSTOP);
}

void ServerProcess::waitUntilServing() const {
    const bool answers = support::eventually([this] {
        try {
            const gpioclient::Client client({"127.0.0.1", port_.number()});
            return true;
        } catch (const gpioclient::Error&) {
            return false;
        }
    });
    if (!answers) {
        throw std::runtime_error("the server does not start");
    }
}
