#include "CommandLine.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "Arguments.h"
#include "Host.h"
#include "Options.h"
#include "Platform.h"

namespace mqttbridge {

namespace {

constexpr std::uint16_t PLAIN_PORT = 1883;
constexpr std::uint16_t TLS_PORT = 8883;
constexpr std::size_t LONGEST_TOPIC_PART = 200;

/// The options as they are given, before they are checked together.
struct Given {
    std::string server;
    std::string broker = "localhost";
    std::string format = "device";
    std::vector<std::string> pins;
    std::vector<std::string> only;
    bool noDiscovery = false;
    bool plainPassword = false;
};

void requireReadable(const std::string& option, const std::string& file) {
    if (!file.empty() && access(file.c_str(), R_OK) != 0) {
        throw UsageError(option + ": cannot read " + file);
    }
}

void checkId(const std::string& id) {
    const bool valid = !id.empty() && id.size() <= LONGEST_TOPIC_PART &&
                       std::all_of(id.begin(), id.end(), [](unsigned char c) {
                           return (std::isalnum(c) != 0 && c < 128) || c == '_' || c == '-';
                       });
    if (!valid) {
        throw UsageError("--id: \"" + id + "\" is no id: use letters, digits, _ and -");
    }
}

void checkTopic(const std::string& option, const std::string& topic) {
    const bool hasOddCharacter = std::any_of(topic.begin(), topic.end(), [](unsigned char c) {
        return c < ' ' || c >= 127 || c == '+' || c == '#';
    });
    if (topic.empty() || topic.size() > LONGEST_TOPIC_PART || hasOddCharacter ||
        topic.front() == '/' || topic.back() == '/' || topic.front() == '$') {
        throw UsageError(
            option + ": \"" + topic +
            "\" cannot begin a topic: use printable ASCII without the wildcards + and #, with "
            "no slash at either end and no $ at the start");
    }
}

std::uint16_t parsePort(const std::string& text, const std::string& whole) {
    const bool digits =
        !text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == text.npos;
    const int port = digits ? std::stoi(text) : 0;
    if (port < 1 || port > 65'535) {
        throw UsageError("--broker: \"" + whole + "\" has no valid port");
    }
    return static_cast<std::uint16_t>(port);
}

/// "host", "host:port", "[ipv6]" or "[ipv6]:port"; a port that is left out stays 0.
gpioclient::Endpoint parseBroker(const std::string& text) {
    gpioclient::Endpoint broker{text, 0};
    const std::size_t bracket = text.starts_with('[') ? text.find(']') : std::string::npos;
    if (bracket != std::string::npos) {
        broker.host = text.substr(1, bracket - 1);
        const std::string rest = text.substr(bracket + 1);
        if (!rest.empty()) {
            broker.port =
                rest.starts_with(':') ? parsePort(rest.substr(1), text) : parsePort("", text);
        }
    } else if (const std::size_t colon = text.find(':');
               colon != std::string::npos && colon == text.rfind(':')) {
        broker.host = text.substr(0, colon);
        broker.port = parsePort(text.substr(colon + 1), text);
    }
    if (broker.host.empty() || broker.host.starts_with('[')) {
        throw UsageError("--broker: \"" + text + "\" names no host");
    }
    return broker;
}

/// NAME or NAME,CLASS.
PinSettings parsePinSettings(unsigned pin, const std::string& text) {
    PinSettings settings{text, ""};
    const std::size_t comma = settings.name.find(',');
    if (comma != std::string::npos) {
        settings.deviceClass = settings.name.substr(comma + 1);
        settings.name.resize(comma);
        if (!isDeviceClass(settings.deviceClass)) {
            throw UsageError("--pin: \"" + settings.deviceClass +
                             "\" is no device class of a switch or a binary sensor");
        }
    }
    if (settings.name.empty()) {
        throw UsageError("--pin: \"" + std::to_string(pin) + "=" + text + "\" gives no name");
    }
    return settings;
}

void checkBroker(const Given& given, BridgeSettings& settings) {
    BrokerSettings& broker = settings.broker;
    for (const auto& [option, file] : std::initializer_list<std::pair<const char*, std::string>>{
             {"--password-file", broker.passwordFile},
             {"--ca-file", broker.caFile},
             {"--cert-file", broker.certFile},
             {"--key-file", broker.keyFile}}) {
        requireReadable(option, file);
    }
    if (broker.certFile.empty() != broker.keyFile.empty()) {
        throw UsageError("--cert-file and --key-file belong together");
    }
    if (!broker.certFile.empty() && !broker.usesTls()) {
        throw UsageError("--cert-file needs TLS: give --ca-file too");
    }
    if (!broker.passwordFile.empty() && broker.username.empty()) {
        throw UsageError("--password-file needs --username");
    }
    const gpioclient::Endpoint endpoint = parseBroker(given.broker);
    broker.host = endpoint.host;
    broker.port = endpoint.port != 0 ? endpoint.port : broker.usesTls() ? TLS_PORT : PLAIN_PORT;
    if (!broker.passwordFile.empty() && !broker.usesTls() && !bridge::isLoopback(broker.host) &&
        !given.plainPassword) {
        throw UsageError(
            "the password would cross the network in the clear: give --ca-file for TLS, or "
            "--plain-password to send it all the same");
    }
}

BridgeSettings check(const Given& given, BridgeSettings settings) {
    checkId(settings.id);
    checkTopic("--base", settings.base);
    checkTopic("--discovery", settings.discoveryPrefix);
    settings.discovers = !given.noDiscovery;
    settings.format =
        given.format == "component" ? DiscoveryFormat::Component : DiscoveryFormat::Device;
    settings.server = bridge::serverOf(given.server);
    checkBroker(given, settings);
    for (const auto& [pin, text] :
         bridge::splitPinOptions(given.pins, "N=NAME or N=NAME,CLASS", parsePin)) {
        settings.pins[pin] = parsePinSettings(pin, text);
    }
    for (const std::string& pin : given.only) {
        settings.only.insert(parsePin(pin));
    }
    if (settings.name.empty()) {
        settings.name = "GPIO " + settings.id;
    }
    return settings;
}

void addOptions(CLI::App& program, Given& given, BridgeSettings& settings) {
    const auto add = [&](const char* option, auto& target, const char* type, const char* help) {
        return program.add_option(option, target, help)->type_name(type);
    };
    bridge::addCommonOptions(program, given.server, GPIO_MQTT_VERSION);
    add("--broker", given.broker, "HOST[:PORT]", "The MQTT broker (localhost:1883)");
    add("--id", settings.id, "ID", "Names this board in topics: letters, digits, _ and -")
        ->required();
    add("--base", settings.base, "TOPIC", "What all topics begin with (gpio)");
    add("--discovery", settings.discoveryPrefix, "PREFIX",
        "Prefix of Home Assistant's discovery topics (homeassistant)");
    program.add_flag("--no-discovery", given.noDiscovery,
                     "Tell Home Assistant of no pins, and take back those told of before");
    add("--discovery-format", given.format, "FORMAT",
        "device: one message for all pins; component: one for each (device)")
        ->check(CLI::IsMember({"device", "component"}));
    add("--name", settings.name, "TEXT", "Name of the device (GPIO and the id)");
    add("--pin", given.pins, "N=NAME[,CLASS]", "Name and device class of a pin; repeatable")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    add("--only", given.only, "N,...", "Offer these pins only")->delimiter(',');
    add("--username", settings.broker.username, "NAME", "User at the broker");
    add("--password-file", settings.broker.passwordFile, "FILE",
        "File whose first line is the password");
    add("--ca-file", settings.broker.caFile, "FILE",
        "Use TLS, and trust the certificates in this file");
    add("--cert-file", settings.broker.certFile, "FILE", "Certificate of this client");
    add("--key-file", settings.broker.keyFile, "FILE", "Its key");
    program.add_flag("--plain-password", given.plainPassword,
                     "Permit a password without TLS to a broker on another machine");
    program.add_flag("--forget", settings.forget,
                     "Clear everything retained of this id at the broker, then end");
    program.footer("Exit status: 0 ended by a signal or with --forget done, 1 broker not reached "
                   "with --forget,\n2 usage.");
}

} // namespace

std::optional<BridgeSettings> parseCommandLine(int argc, char** argv) {
    Given given;
    BridgeSettings settings;
    CLI::App program("Puts the pins of a GpioServer on an MQTT broker, with Home Assistant "
                     "discovery.",
                     "gpio-mqtt");
    addOptions(program, given, settings);
    return bridge::parse(program, argc, argv) ? std::optional(check(given, settings))
                                              : std::nullopt;
}

} // namespace mqttbridge
