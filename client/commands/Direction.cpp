#include <memory>
#include <optional>

#include "../Command.h"
#include "../Output.h"

namespace {

using gpioclient::Direction;

void printDirection(const Settings& settings, unsigned pin, Direction direction) {
    const std::string name = gpioclient::toString(direction);
    const std::string digit = direction == Direction::Input ? "1" : "0";
    print(settings, {{"pin", pin}, {"direction", name}},
          settings.numeric ? digit : std::to_string(pin) + "=" + name);
}

} // namespace

void addDirection(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("direction", "Show or change the direction of a pin");
    auto pin = std::make_shared<unsigned>();
    auto wanted = std::make_shared<std::optional<Direction>>();
    addParsed(*app, "PIN", *pin, parsePin, "Pin, decimal or hexadecimal with 0x")->required();
    addParsed(*app, "DIRECTION", *wanted, parseDirection,
              "in or out; without it the direction is shown");
    app->callback([&settings, pin, wanted] {
        gpioclient::Client client = settings.connect();
        if (!*wanted) {
            printDirection(settings, *pin, client.direction(*pin));
            return;
        }
        client.setDirection(*pin, **wanted);
        if (settings.json && !settings.quiet) {
            printDirection(settings, *pin, **wanted);
        }
    });
}
