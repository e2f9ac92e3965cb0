#include "Output.h"

#include <cerrno>
#include <iostream>
#include <system_error>

using nlohmann::ordered_json;

void print(const Settings& settings, const ordered_json& value, std::string_view text) {
    errno = 0;
    if (settings.json) {
        std::cout << value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    } else {
        std::cout << text;
    }
    std::cout << '\n' << std::flush;
    if (!std::cout) {
        throw std::system_error(errno, std::generic_category(), "cannot write the output");
    }
}

void printLevels(const Settings& settings, const std::vector<Assignment>& levels) {
    std::string line;
    ordered_json array = ordered_json::array();
    for (const auto& [pin, level] : levels) {
        array.push_back({{"pin", pin}, {"level", level == gpioclient::Level::High ? 1 : 0}});
        line += line.empty() ? "" : " ";
        line += (settings.numeric ? "" : std::to_string(pin) + "=") + levelText(settings, level);
    }
    print(settings, array, line);
}

std::string levelText(const Settings& settings, gpioclient::Level level) {
    if (settings.numeric) {
        return level == gpioclient::Level::High ? "1" : "0";
    }
    return gpioclient::toString(level);
}

void printNote(const Settings& settings, std::string_view line) {
    if (!settings.quiet) {
        std::cerr << "gpio-client: " << line << '\n' << std::flush;
    }
}
