#include <memory>

#include "../Command.h"
#include "../Output.h"

namespace {

using gpioclient::Level;

void toggle(const Settings& settings, const std::vector<unsigned>& pins) {
    gpioclient::Client client = settings.connect();
    for (const unsigned pin : pins) {
        client.checkWritable(pin);
        client.checkReadable(pin);
    }
    std::vector<Assignment> levels;
    for (const unsigned pin : pins) {
        const Level level = client.readPin(pin) == Level::High ? Level::Low : Level::High;
        client.writePin(pin, level);
        levels.push_back({pin, level});
    }
    if (!settings.quiet) {
        printLevels(settings, levels);
    }
}

} // namespace

void addToggle(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("toggle", "Invert pins and print their new levels");
    auto pins = std::make_shared<std::vector<unsigned>>();
    addParsed(*app, "PIN", *pins, parsePin, "Pins, decimal or hexadecimal with 0x")->required();
    app->callback([&settings, pins] { toggle(settings, *pins); });
}
