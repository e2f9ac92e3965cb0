#include <memory>

#include <nlohmann/json.hpp>

#include "../Command.h"
#include "../Output.h"

namespace {

using gpioclient::Direction;

void printDirection(const Settings& settings, unsigned pin, Direction direction) {
    if (settings.json) {
        printJson({{"pin", pin}, {"direction", gpioclient::toString(direction)}});
    } else if (settings.numeric) {
        printLine(direction == Direction::Input ? "1" : "0");
    } else {
        printLine(std::to_string(pin) + "=" + gpioclient::toString(direction));
    }
}

void show(const Settings& settings, unsigned pin) {
    gpioclient::Client client = settings.connect();
    printDirection(settings, pin, client.direction(pin));
}

void change(const Settings& settings, unsigned pin, Direction direction) {
    gpioclient::Client client = settings.connect();
    client.setDirection(pin, direction);
    if (settings.json && !settings.quiet) {
        printDirection(settings, pin, direction);
    }
}

} // namespace

Command addDirection(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("direction", "Show or change the direction of a pin");
    auto pin = std::make_shared<std::string>();
    auto direction = std::make_shared<std::string>();
    app->add_option("PIN", *pin, "Pin, decimal or hexadecimal with 0x")->required();
    app->add_option("DIRECTION", *direction, "in or out; without it the direction is shown");
    return {app, [&settings, pin, direction] {
                const unsigned number = parsePin(*pin);
                if (direction->empty()) {
                    show(settings, number);
                } else {
                    change(settings, number, parseDirection(*direction));
                }
            }};
}
