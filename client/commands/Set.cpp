#include <memory>

#include "../Command.h"
#include "../Output.h"

namespace {

void set(const Settings& settings, const std::vector<std::string>& arguments) {
    std::vector<Assignment> assignments;
    assignments.reserve(arguments.size());
    for (const std::string& argument : arguments) {
        assignments.push_back(parseAssignment(argument));
    }
    gpioclient::Client client = settings.connect();
    for (const Assignment& assignment : assignments) {
        client.checkWritable(assignment.pin);
    }
    for (const auto& [pin, level] : assignments) {
        client.writePin(pin, level);
    }
    if (settings.json && !settings.quiet) {
        printLevels(settings, assignments);
    }
}

} // namespace

Command addSet(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("set", "Drive pins, in the order given");
    auto assignments = std::make_shared<std::vector<std::string>>();
    app->add_option("PIN=VALUE", *assignments, "Pins with their levels: 0, 1, low, high, off or on")
        ->required();
    return {app, [&settings, assignments] { set(settings, *assignments); }};
}
