#include <memory>

#include "../Command.h"
#include "../Output.h"

void addRaw(CLI::App& program, const Settings& settings) {
    CLI::App* app = program.add_subcommand("raw", "Send one command as it is, print its answer");
    auto command = std::make_shared<std::string>();
    app->add_option("COMMAND", *command,
                    "Command letter, pin digits and value digit, such as R50 (test back end) or "
                    "R0D0 (board)")
        ->required();
    app->callback([&settings, command] {
        gpioclient::Client client = settings.connect();
        const std::string answer = client.raw(*command);
        print(settings, {{"command", *command}, {"answer", answer}}, answer);
    });
}
