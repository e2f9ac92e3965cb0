#include <csignal>
#include <iostream>
#include <string>

#include <asio/io_context.hpp>
#include <asio/ip/address.hpp>
#include <asio/signal_set.hpp>
#include <unistd.h>

#include "CommandLine.h"
#include "Log.h"
#include "Program.h"
#include "Server.h"

namespace {

using webbridge::Server;
using webbridge::WebSettings;

Server::Config configOf(const WebSettings& settings) {
    webbridge::Application::Config application{
        webbridge::Guard(settings.allowedHosts, settings.password),
        webbridge::Documents(settings.names, settings.readOnly), settings.readOnly};
    return {{asio::ip::make_address(settings.listenHost), settings.listenPort},
            std::move(application),
            webbridge::Limits::fromEnvironment(),
            settings.server,
            settings.names};
}

std::string urlOf(const asio::ip::tcp::endpoint& address) {
    const std::string host = address.address().to_string();
    return "http://" + (address.address().is_v6() ? "[" + host + "]" : host) + ":" +
           std::to_string(address.port()) + "/";
}

void serve(const WebSettings& settings) {
    bridge::setLogName("gpio-web");
    std::signal(SIGPIPE, SIG_IGN);
    asio::io_context context(1);
    asio::signal_set stops(context, SIGINT, SIGTERM, SIGHUP);
    Server server(context, configOf(settings));
    stops.async_wait([&](const asio::error_code& /*error*/, int /*signal*/) {
        server.stop();
        context.stop();
    });
    std::cout << "listening on " + urlOf(server.address()) + "\n" << std::flush;
    context.run();
}

} // namespace

int main(int argc, char** argv) {
    return bridge::runProgram("gpio-web", [&] {
        if (const auto settings = webbridge::parseCommandLine(argc, argv)) {
            serve(*settings);
        }
        return bridge::DONE;
    });
}
