#include "Output.h"

#include <cerrno>
#include <iostream>
#include <system_error>

#include <nlohmann/json.hpp>

void printLine(std::string_view line) {
    errno = 0;
    std::cout << line << '\n' << std::flush;
    if (!std::cout) {
        throw std::system_error(errno, std::generic_category(), "cannot write the output");
    }
}

void printJson(const nlohmann::ordered_json& value) {
    printLine(value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

void printLevels(const Settings& settings, const std::vector<Assignment>& levels) {
    std::string line;
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const auto& [pin, level] : levels) {
        const bool high = level == gpioclient::Level::High;
        array.push_back({{"pin", pin}, {"level", high ? 1 : 0}});
        line += line.empty() ? "" : " ";
        line += settings.numeric ? (high ? "1" : "0")
                                 : std::to_string(pin) + "=" + gpioclient::toString(level);
    }
    if (settings.json) {
        printJson(array);
    } else {
        printLine(line);
    }
}

void printNote(const Settings& settings, std::string_view line) {
    if (!settings.quiet) {
        std::cerr << "gpio-client: " << line << '\n' << std::flush;
    }
}
