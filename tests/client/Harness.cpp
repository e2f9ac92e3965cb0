#include "Harness.h"

#include <utility>

using support::FakeServer;

std::unique_ptr<support::Process> startClient(const std::string& server,
                                              const std::vector<std::string>& arguments) {
    return std::make_unique<support::Process>(
        support::ProcessOptions{.executable = GPIO_CLIENT_PATH,
                                .arguments = arguments,
                                .environment = {"GPIO_SERVER=" + server}});
}

Outcome runClient(const std::string& server, const std::vector<std::string>& arguments) {
    const auto program = startClient(server, arguments);
    const std::optional<int> status = program->waitForEnd();
    return {status, program->output(), program->error()};
}

Outcome runClient(FakeServer::Script server, const std::vector<std::string>& arguments) {
    const FakeServer fake(std::move(server));
    return runClient(fake.endpoint().toString(), arguments);
}

std::unique_ptr<support::Process> startShell(const std::string& server, const std::string& script) {
    return std::make_unique<support::Process>(support::ProcessOptions{
        .executable = "/bin/sh",
        .arguments = {"-c", script},
        .environment = {"GPIO_SERVER=" + server, "CLIENT=" GPIO_CLIENT_PATH}});
}

RestartableServer::RestartableServer(const std::string& mode,
                                     std::vector<std::string> environment) {
    options_.arguments = {"--port=" + std::to_string(port()), mode};
    options_.environment = std::move(environment);
    start();
}

void RestartableServer::start() {
    process_.emplace(options_);
    process_->port();
}

std::unique_ptr<support::Process>
ProgramOnServer::startMonitor(std::vector<std::string> options) const {
    options.insert(options.begin(), {"monitor", "--banner"});
    auto monitor = start(options);
    EXPECT_TRUE(monitor->waitForOutput("\n"));
    return monitor;
}
