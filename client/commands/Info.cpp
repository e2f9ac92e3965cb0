#include <sstream>

#include <nlohmann/json.hpp>

#include "../Command.h"
#include "../Output.h"

namespace {

using gpioclient::contains;
using gpioclient::PinMask;

struct PinTable {
    gpioclient::BackEnd backEnd;
    std::string server;
    std::string firmware;
    unsigned pinCount;
    unsigned inputCount;
    unsigned outputCount;
    PinMask inputs;
    gpioclient::Levels levels;

    const char* direction(unsigned pin) const { return contains(inputs, pin) ? "input" : "output"; }
};

PinTable readTable(const Settings& settings) {
    gpioclient::Client client = settings.connect();
    const bool board = client.backEnd() == gpioclient::BackEnd::Board;
    return {client.backEnd(),
            settings.endpoint().toString(),
            board ? client.firmwareVersion() : std::string(),
            client.pinCount(),
            client.inputCount(),
            client.outputCount(),
            client.inputPins(),
            client.readLevels()};
}

void printTableAsJson(const PinTable& table) {
    auto pins = nlohmann::ordered_json::array();
    for (unsigned pin = 0; pin < table.pinCount; ++pin) {
        nlohmann::ordered_json level;
        if (table.levels.at(pin)) {
            level = table.levels.isHigh(pin) ? 1 : 0;
        }
        pins.push_back({{"pin", pin}, {"direction", table.direction(pin)}, {"level", level}});
    }
    nlohmann::ordered_json firmware;
    if (!table.firmware.empty()) {
        firmware = table.firmware;
    }
    printJson({{"server", table.server},
               {"backEnd", gpioclient::toString(table.backEnd)},
               {"firmware", firmware},
               {"inputs", table.inputCount},
               {"outputs", table.outputCount},
               {"pins", pins}});
}

std::string levelText(const Settings& settings, const PinTable& table, unsigned pin) {
    const auto level = table.levels.at(pin);
    if (!level) {
        return "-";
    }
    if (settings.numeric) {
        return level == gpioclient::Level::High ? "1" : "0";
    }
    return gpioclient::toString(*level);
}

void printTable(const Settings& settings, const PinTable& table) {
    std::ostringstream out;
    out << "server    " << table.server << "\nback end  " << gpioclient::toString(table.backEnd)
        << "\nfirmware  " << (table.firmware.empty() ? "-" : table.firmware) << "\npins      "
        << table.inputCount << " inputs, " << table.outputCount << " outputs\n\n"
        << "pin  direction  level";
    for (unsigned pin = 0; pin < table.pinCount; ++pin) {
        const std::string direction = table.direction(pin);
        out << '\n'
            << (pin < 10 ? "  " : " ") << pin << "  " << direction
            << std::string(11 - direction.size(), ' ') << levelText(settings, table, pin);
    }
    printLine(out.str());
}

} // namespace

Command addInfo(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("info", "Show the back end, its firmware and all pins");
    return {app, [&settings] {
                const PinTable table = readTable(settings);
                if (settings.json) {
                    printTableAsJson(table);
                } else {
                    printTable(settings, table);
                }
            }};
}
