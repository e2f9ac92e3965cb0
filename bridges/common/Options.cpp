#include "Options.h"

#include <fstream>
#include <memory>

#include <gpio-client/Error.h>

#include "Arguments.h"

namespace bridge {

namespace {

constexpr std::uint16_t SERVER_PORT = 5000;

} // namespace

void addCommonOptions(CLI::App& program, std::string& server, const std::string& version) {
    // Repeated lines are all the lists there are: a comma or a blank belongs to its value.
    auto format = std::make_shared<CLI::ConfigBase>();
    format->arrayDelimiter('\n');
    program.config_formatter(format);
    program.set_config("--config", "", "Read options from an INI file, named as here without --")
        ->type_name("FILE");
    program.allow_config_extras(CLI::config_extras_mode::error);
    program.add_option("--server", server, "The GpioServer (GPIO_SERVER, else localhost:5000)")
        ->type_name("HOST:PORT");
    program.set_version_flag("--version", program.get_name() + " " + version);
}

bool parse(CLI::App& program, int argc, char** argv) {
    try {
        program.parse(argc, argv);
        return true;
    } catch (const CLI::Success& request) {
        program.exit(request);
        return false;
    } catch (const CLI::ParseError& error) {
        throw UsageError(std::string(error.what()) + "; see " + program.get_name() + " --help");
    }
}

std::map<unsigned, std::string> splitPinOptions(const std::vector<std::string>& values,
                                                const std::string& form,
                                                unsigned (*parseNumber)(std::string_view)) {
    std::map<unsigned, std::string> pins;
    for (const std::string& value : values) {
        const std::size_t equals = value.find('=');
        if (equals == std::string::npos) {
            throw UsageError(
                std::string("--pin: \"").append(value).append("\" is not of the form ") + form);
        }
        const unsigned pin = parseNumber(value.substr(0, equals));
        if (!pins.emplace(pin, value.substr(equals + 1)).second) {
            throw UsageError("--pin: pin " + std::to_string(pin) + " is named twice");
        }
    }
    return pins;
}

std::optional<std::string> firstLineOf(const std::string& file) {
    std::ifstream stream(file);
    std::string line;
    if (!stream || !std::getline(stream, line)) {
        return std::nullopt;
    }
    if (line.ends_with('\r')) {
        line.pop_back();
    }
    return line;
}

gpioclient::Endpoint serverOf(const std::string& given) {
    if (given.empty()) {
        return serverFromEnvironment().value_or(gpioclient::Endpoint{"localhost", SERVER_PORT});
    }
    try {
        return gpioclient::Endpoint::parse(given);
    } catch (const gpioclient::Error& error) {
        throw UsageError("--server: " + std::string(error.what()));
    }
}

} // namespace bridge
