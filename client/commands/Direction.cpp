#include <memory>
#include <optional>

#include <nlohmann/json.hpp>

#include "../Command.h"
#include "../Output.h"

namespace {

using gpioclient::Direction;

void print(const Settings& settings, unsigned pin, Direction direction) {
    if (settings.json) {
        printJson({{"pin", pin}, {"direction", gpioclient::toString(direction)}});
    } else if (settings.numeric) {
        printLine(direction == Direction::Input ? "1" : "0");
    } else {
        printLine(std::to_string(pin) + "=" + gpioclient::toString(direction));
    }
}

} // namespace

Command addDirection(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("direction", "Show or change the direction of a pin");
    auto pin = std::make_shared<unsigned>();
    auto wanted = std::make_shared<std::optional<Direction>>();
    addParsed(*app, "PIN", *pin, parsePin, "Pin, decimal or hexadecimal with 0x")->required();
    addParsed(*app, "DIRECTION", *wanted, parseDirection,
              "in or out; without it the direction is shown");
    return {app, [&settings, pin, wanted] {
                gpioclient::Client client = settings.connect();
                if (!*wanted) {
                    print(settings, *pin, client.direction(*pin));
                    return;
                }
                client.setDirection(*pin, **wanted);
                if (settings.json && !settings.quiet) {
                    print(settings, *pin, **wanted);
                }
            }};
}
