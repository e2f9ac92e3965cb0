#include <memory>

#include "../Command.h"
#include "../Output.h"

namespace {

void get(const Settings& settings, const std::vector<unsigned>& pins) {
    gpioclient::Client client = settings.connect();
    for (const unsigned pin : pins) {
        client.checkReadable(pin);
    }
    std::vector<Assignment> levels;
    levels.reserve(pins.size());
    for (const unsigned pin : pins) {
        levels.push_back({pin, client.readPin(pin)});
    }
    printLevels(settings, levels);
}

} // namespace

void addGet(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("get", "Read the levels of pins");
    auto pins = std::make_shared<std::vector<unsigned>>();
    addParsed(*app, "PIN", *pins, parsePin, "Pins, decimal or hexadecimal with 0x")->required();
    app->callback([&settings, pins] { get(settings, *pins); });
}
