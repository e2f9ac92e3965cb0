#include "CommandLine.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <gpio-client/Error.h>

#include "Arguments.h"
#include "Host.h"
#include "Options.h"

namespace webbridge {

namespace {

constexpr std::size_t LONGEST_NAME = 64;

/// The options as they are given, before they are checked together.
struct Given {
    std::string server;
    std::string listen = "127.0.0.1:8080";
    std::vector<std::string> allowedHosts;
    std::string passwordFile;
    std::vector<std::string> pins;
    bool readOnly = false;
};

/// The library's form, but for port 0, which is a port to listen on.
void parseListen(const std::string& text, WebSettings& settings) {
    const bool anyPort = text.ends_with(":0");
    try {
        const auto endpoint =
            gpioclient::Endpoint::parse(anyPort ? text.substr(0, text.size() - 1) + "1" : text);
        settings.listenHost = endpoint.host == "localhost" ? "127.0.0.1" : endpoint.host;
        settings.listenPort = anyPort ? std::uint16_t{0} : endpoint.port;
    } catch (const gpioclient::Error& error) {
        throw UsageError("--listen: " + std::string(error.what()));
    }
    if (!bridge::isAddress(settings.listenHost)) {
        throw UsageError("--listen: \"" + text +
                         "\" does not begin with an address of this machine");
    }
}

std::string readPassword(const std::string& file) {
    const auto password = bridge::firstLineOf(file);
    if (!password) {
        throw UsageError("--password-file: cannot read a line from " + file);
    }
    if (password->empty()) {
        throw UsageError("--password-file: the first line of " + file + " is empty");
    }
    return *password;
}

void checkName(unsigned pin, const std::string& name) {
    const bool hasControls = std::any_of(name.begin(), name.end(), [](unsigned char character) {
        return character < ' ' || character == 0x7f;
    });
    if (name.empty() || name.size() > LONGEST_NAME || hasControls) {
        throw UsageError("--pin: \"" + std::to_string(pin) + "=" + name +
                         "\" gives no name of 1 to " + std::to_string(LONGEST_NAME) +
                         " printable characters");
    }
    try {
        static_cast<void>(nlohmann::json(name).dump());
    } catch (const nlohmann::json::exception&) {
        throw UsageError("--pin: the name of \"" + std::to_string(pin) + "\" is not UTF-8");
    }
}

void checkAccess(const Given& given, const WebSettings& settings) {
    if (!settings.password.empty()) {
        return;
    }
    if (!bridge::isLoopback(settings.listenHost)) {
        throw UsageError(
            "--listen: " + given.listen +
            " is reached from other machines, and whoever reaches it can drive the pins: give "
            "--password-file, or listen on 127.0.0.1");
    }
    for (const std::string& host : settings.allowedHosts) {
        if (!bridge::isLoopback(host)) {
            throw UsageError(
                "--allow-host: " + host +
                " lets other machines in through a proxy, and whoever gets in can drive the "
                "pins: give --password-file");
        }
    }
}

WebSettings check(const Given& given) {
    WebSettings settings;
    settings.server = bridge::serverOf(given.server);
    parseListen(given.listen, settings);
    for (const std::string& host : given.allowedHosts) {
        if (host.empty() ||
            (host.find_first_of(":/[] ") != std::string::npos && !bridge::isAddress(host))) {
            throw UsageError("--allow-host: \"" + host +
                             "\" is not a name or an address without a port");
        }
        settings.allowedHosts.insert(host);
    }
    if (!given.passwordFile.empty()) {
        settings.password = readPassword(given.passwordFile);
    }
    settings.names = bridge::splitPinOptions(given.pins, "N=NAME", parsePinNumber);
    for (const auto& [pin, name] : settings.names) {
        checkName(pin, name);
    }
    settings.readOnly = given.readOnly;
    checkAccess(given, settings);
    settings.allowedHosts.insert(settings.listenHost);
    return settings;
}

void addOptions(CLI::App& program, Given& given) {
    const auto add = [&](const char* option, auto& target, const char* type, const char* help) {
        return program.add_option(option, target, help)->type_name(type);
    };
    const auto takeAll = CLI::MultiOptionPolicy::TakeAll;
    bridge::addCommonOptions(program, given.server, GPIO_WEB_VERSION);
    add("--listen", given.listen, "ADDRESS:PORT",
        "Where to serve; port 0 chooses one (127.0.0.1:8080)");
    add("--allow-host", given.allowedHosts, "NAME",
        "A name besides localhost that browsers may use for this machine; repeatable")
        ->expected(1)
        ->multi_option_policy(takeAll);
    add("--password-file", given.passwordFile, "FILE",
        "File whose first line is the password of the user gpio");
    add("--pin", given.pins, "N=NAME", "Name of a pin; repeatable")
        ->expected(1)
        ->multi_option_policy(takeAll);
    program.add_flag("--read-only", given.readOnly, "Show the pins, and switch nothing");
    program.footer("Exit status: 0 ended by a signal, 1 cannot listen there, 2 usage.");
}

} // namespace

std::optional<WebSettings> parseCommandLine(int argc, char** argv) {
    Given given;
    CLI::App program("Shows the pins of a GpioServer in the browser, switches its outputs, and "
                     "serves them by HTTP.",
                     "gpio-web");
    addOptions(program, given);
    return bridge::parse(program, argc, argv) ? std::optional(check(given)) : std::nullopt;
}

} // namespace webbridge
