#include <memory>

#include "../Command.h"
#include "../Output.h"

namespace {

void set(const Settings& settings, const std::vector<Assignment>& assignments) {
    gpioclient::Client client = settings.connect();
    for (const auto& [pin, level] : assignments) {
        client.checkWritable(pin);
    }
    for (const auto& [pin, level] : assignments) {
        client.writePin(pin, level);
    }
    if (settings.json && !settings.quiet) {
        printLevels(settings, assignments);
    }
}

} // namespace

void addSet(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("set", "Drive pins, in the order given");
    auto assignments = std::make_shared<std::vector<Assignment>>();
    addParsed(*app, "PIN=VALUE", *assignments, parseAssignment,
              "Pins with their levels: 0, 1, low, high, off or on")
        ->required();
    app->callback([&settings, assignments] { set(settings, *assignments); });
}
