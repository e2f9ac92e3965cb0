#include <sstream>

#include "../Command.h"
#include "../Output.h"

namespace {

using Json = nlohmann::ordered_json;

Json readInfo(const Settings& settings) {
    gpioclient::Client client = settings.connect();
    const bool board = client.backEnd() == gpioclient::BackEnd::Board;
    const std::string firmware = board ? client.firmwareVersion() : "";
    Json info{{"server", settings.endpoint().toString()},
              {"backEnd", gpioclient::toString(client.backEnd())},
              {"firmware", firmware.empty() ? Json() : Json(firmware)},
              {"inputs", client.inputCount()},
              {"outputs", client.outputCount()}};
    const gpioclient::PinMask inputs = client.inputPins();
    const gpioclient::Levels levels = client.readLevels();
    Json& pins = info["pins"] = Json::array();
    for (unsigned pin = 0; pin < client.pinCount(); ++pin) {
        pins.push_back({{"pin", pin},
                        {"direction", gpioclient::contains(inputs, pin) ? "input" : "output"},
                        {"level", levels.at(pin) ? Json(levels.isHigh(pin) ? 1 : 0) : Json()}});
    }
    return info;
}

std::string tableOf(const Settings& settings, const Json& info) {
    const auto text = [](const Json& value) {
        return value.is_null() ? "-" : value.get<std::string>();
    };
    std::ostringstream out;
    out << "server    " << text(info["server"]) << "\nback end  " << text(info["backEnd"])
        << "\nfirmware  " << text(info["firmware"]) << "\npins      " << info["inputs"]
        << " inputs, " << info["outputs"] << " outputs\n\npin  direction  level";
    for (const Json& pin : info["pins"]) {
        const std::string direction = text(pin["direction"]);
        const Json& level = pin["level"];
        out << '\n'
            << (pin["pin"] < 10 ? "  " : " ") << pin["pin"] << "  " << direction
            << std::string(11 - direction.size(), ' ')
            << (level.is_null() ? "-" : levelText(settings, static_cast<gpioclient::Level>(level)));
    }
    return out.str();
}

} // namespace

void addInfo(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("info", "Show the back end, its firmware and all pins");
    app->callback([&settings] {
        const Json info = readInfo(settings);
        print(settings, info, tableOf(settings, info));
    });
}
