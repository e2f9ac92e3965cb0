#include "Documents.h"

#include <array>
#include <cstdio>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

namespace webbridge {

namespace {

using Json = nlohmann::ordered_json;

const char* directionOf(const PinTable& table, unsigned pin) {
    return table.isInput(pin) ? "in" : "out";
}

Json levelOf(const PinTable& table, unsigned pin) {
    return table.isKnown(pin) ? Json(table.isHigh(pin) ? 1 : 0) : Json(nullptr);
}

std::string event(std::string_view name, const std::string& data) {
    std::string text = "event: ";
    text += name;
    text += "\ndata: ";
    text += data;
    text += "\n\n";
    return text;
}

void addHead(std::string& text, const std::string& name, std::string_view type,
             std::string_view help) {
    text += "# HELP " + name + " ";
    text += help;
    text += "\n# TYPE " + name + " ";
    text += type;
    text += '\n';
}

} // namespace

Documents::Documents(std::map<unsigned, std::string> names, bool readOnly)
    : names_(std::move(names)), readOnly_(readOnly) {}

std::string Documents::pins(const PinTable& table) const {
    Json document;
    document["backEnd"] = table.backEnd ? Json(gpioclient::toString(*table.backEnd)) : Json();
    document["firmware"] = table.firmware.empty() ? Json() : Json(table.firmware);
    document["board"] = table.connected;
    if (readOnly_) {
        document["readOnly"] = true;
    }
    Json& pins = document["pins"] = Json::array();
    for (unsigned pin = 0; pin < table.pinCount(); ++pin) {
        const auto name = names_.find(pin);
        pins.push_back({{"n", pin},
                        {"name", name == names_.end() ? "" : name->second},
                        {"dir", directionOf(table, pin)},
                        {"level", levelOf(table, pin)}});
    }
    return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string Documents::snapshotEvent(const PinTable& table) const {
    return event("snapshot", pins(table));
}

std::string Documents::changeEvent(const PinTable& table, unsigned pin) {
    const std::int64_t time = table.changedAt[pin];
    std::array<char, 96> data{};
    std::snprintf(data.data(), data.size(), R"({"n":%u,"level":%s,"t":%lld.%03lld})", pin,
                  table.isKnown(pin) ? (table.isHigh(pin) ? "1" : "0") : "null",
                  static_cast<long long>(time / 1000), static_cast<long long>(time % 1000));
    return event("change", data.data());
}

std::string Documents::linkEvent(bool connected) {
    return event("link", connected ? R"({"board":true})" : R"({"board":false})");
}

std::string Documents::metrics(const PinTable& table,
                               const std::map<unsigned, std::uint64_t>& requests) {
    std::string text;
    addHead(text, "gpio_board_up", "gauge", "Whether the server, and with it the board, is there.");
    text += table.connected ? "gpio_board_up 1\n" : "gpio_board_up 0\n";
    addHead(text, "gpio_pin_level", "gauge", "Level of a pin; pins of unknown level are left out.");
    for (unsigned pin = 0; table.connected && pin < table.pinCount(); ++pin) {
        if (table.isKnown(pin)) {
            text += "gpio_pin_level{pin=\"" + std::to_string(pin) + "\",direction=\"" +
                    directionOf(table, pin) + (table.isHigh(pin) ? "\"} 1\n" : "\"} 0\n");
        }
    }
    addHead(text, "gpio_pin_changes_total", "counter", "Levels that were seen to change.");
    text += "gpio_pin_changes_total " + std::to_string(table.changes) + "\n";
    addHead(text, "gpio_reconnects_total", "counter", "Returns of the server after a loss.");
    const std::uint64_t returns = table.connections == 0 ? 0 : table.connections - 1;
    text += "gpio_reconnects_total " + std::to_string(returns) + "\n";
    addHead(text, "gpio_http_requests_total", "counter", "HTTP requests answered, by status.");
    for (const auto& [code, count] : requests) {
        text += "gpio_http_requests_total{code=\"" + std::to_string(code) + "\"} " +
                std::to_string(count) + "\n";
    }
    return text;
}

} // namespace webbridge
