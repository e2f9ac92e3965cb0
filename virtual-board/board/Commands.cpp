#include "board/Commands.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>

namespace {

using Words = Commands::Words;

constexpr std::uint64_t MAX_MILLISECONDS = 3'600'000;
constexpr std::uint64_t MAX_COUNT = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t MAX_RATE = 1'000'000;
constexpr int DECIMAL = 10;
constexpr int HEXADECIMAL = 16;

constexpr std::string_view HELP =
    R"(Commands, one a line; the answer is one line, "ok", "ok TEXT" or "error REASON".
  plug                     put the board on the bus
  unplug                   pull it out; transfers under way end with an error
  unplug-after written N   pull it out once N more bytes came from the host
  unplug-after delivered N pull it out once N more data bytes reached the host
  cut HEX...               send bytes, then pull the board out once the host has them
  inputs [A B [quiet]]     show the input ports (hex bytes), or set them and report the change
                           unless quiet
  outputs                  show the 13 outputs, pin 0 first, and how many were written
  wire OUT IN              join an output to an input, by the numbers of the server's clients: 0 to
                           12 and 13 to 28; the input then follows the output
  wire off                 take all wires away
  log [clear]              show the pin writes in order as PIN=VALUE, or forget them
  ignore R|V|W|K on|off    take no notice of a request
  send HEX...              send bytes to the host as they are
  flood RATE|max [COUNT]   report input changes, RATE a second or as fast as they are read;
                           the n-th sets A to the high and B to the low byte of n
  flood off
  firmware MAJOR MINOR     version to tell (decimal)
  product 6001|6015        USB product id; takes effect when the board is plugged in
  restart drop [AWAY]      on the restart message leave the bus for AWAY ms (1000)
  restart stay [AWAY]      stay on the bus, silent for AWAY ms
  restart ignore           no effect
  stall reads|writes on|off     hold transfers back
  fail claim|purge N       refuse the next N
  kernel-driver on|off     let a kernel driver hold the interface (to be detached)
  capacity BYTES           bytes kept for a host that does not read; more are lost
  stats [NAME...]          every counter and state as NAME=VALUE, or the values of these
  wait NAME [=|>=|<=] N [MS]    answer when the value is reached (>= by default), or with an error
                           after MS milliseconds (5000)
  quit                     end the process
)";

std::uint64_t parse(std::string_view text, int base, std::uint64_t least, std::uint64_t most) {
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || stopped != end || value < least || value > most) {
        throw std::invalid_argument("wrong number: " + std::string(text));
    }
    return value;
}

std::uint8_t byte(std::string_view text) {
    return static_cast<std::uint8_t>(parse(text, HEXADECIMAL, 0, 0xFF));
}

/// A word may hold several ("49ff01").
std::vector<std::uint8_t> bytes(const Words& words) {
    std::vector<std::uint8_t> result;
    for (const std::string& word : words) {
        for (std::size_t offset = 0; offset < word.size(); offset += 2) {
            result.push_back(byte(std::string_view(word).substr(offset, 2)));
        }
    }
    return result;
}

std::uint8_t decimalByte(const std::string& text) {
    return static_cast<std::uint8_t>(Commands::number(text, 0, 0xFF));
}

/// The place of a word among those that are allowed.
std::size_t choice(const std::string& word, const Words& allowed) {
    const auto found = std::find(allowed.begin(), allowed.end(), word);
    if (found == allowed.end()) {
        throw std::invalid_argument("not understood: " + word);
    }
    return static_cast<std::size_t>(found - allowed.begin());
}

bool isOn(const std::string& word) {
    return choice(word, {"off", "on"}) == 1;
}

std::size_t sizeOf(const std::string& text, std::uint64_t least) {
    return static_cast<std::size_t>(Commands::number(text, least, MAX_COUNT));
}

std::string unplugAfter(Board& board, const Words& words) {
    const std::size_t count = sizeOf(words[1], 1);
    const bool isWritten = choice(words[0], {"delivered", "written"}) == 1;
    (isWritten ? board.faults.writtenLeft : board.faults.deliveredLeft) = count;
    return {};
}

std::string inputs(Board& board, const Words& words) {
    if (words.size() > 1) {
        const bool isLoud = words.size() == 2 || choice(words[2], {"quiet"}) != 0;
        board.setInputs({byte(words[0]), byte(words[1])}, isLoud && board.device.isPlugged());
        return {};
    }
    char text[sizeof "ff ff"];
    const Firmware::Ports& ports = board.firmware.getInputs();
    std::snprintf(text, sizeof text, "%02x %02x", ports[0], ports[1]);
    return text;
}

std::string outputs(Board& board, const Words& /*words*/) {
    std::string result;
    for (std::size_t pin = 0; pin < Firmware::OUTPUT_COUNT; ++pin) {
        result += board.getOutput(pin) ? '1' : '0';
    }
    return result + " " + std::to_string(board.firmware.getWriteCount());
}

/// For what only the built-in model can do.
void requireModel(const Board& board) {
    if (!board.hasModel()) {
        throw std::invalid_argument("the firmware is a real one");
    }
}

std::string wire(Board& board, const Words& words) {
    requireModel(board);
    if (words.size() == 1) {
        choice(words[0], {"off"});
        board.firmware.unwire();
        return {};
    }
    constexpr std::size_t OUTPUTS = Firmware::OUTPUT_COUNT;
    const auto output = static_cast<std::size_t>(Commands::number(words[0], 0, OUTPUTS - 1));
    const auto input = static_cast<std::size_t>(
        Commands::number(words[1], OUTPUTS, OUTPUTS + Firmware::INPUT_COUNT - 1));
    // Clients call the last output 0, and the others one more than the board does.
    board.firmware.wire((output + OUTPUTS - 1) % OUTPUTS, input - OUTPUTS,
                        board.device.isPlugged());
    return {};
}

std::string log(Board& board, const Words& words) {
    if (words.empty()) {
        return board.firmware.getLog();
    }
    choice(words[0], {"clear"});
    board.firmware.clearLog();
    return {};
}

std::string ignore(Board& board, const Words& words) {
    requireModel(board);
    choice(words[0], {"R", "V", "W", "K"});
    if (isOn(words[1])) {
        board.firmware.ignore(words[0].front());
    } else {
        board.firmware.heed(words[0].front());
    }
    return {};
}

std::string flood(Board& board, const Words& words) {
    requireModel(board);
    if (words[0] == "off") {
        board.flood.stop();
        return {};
    }
    std::optional<std::uint32_t> rate;
    if (words[0] != "max") {
        rate = static_cast<std::uint32_t>(Commands::number(words[0], 1, MAX_RATE));
    }
    board.flood.start(rate, words.size() == 2 ? Commands::number(words[1], 1, MAX_COUNT)
                                              : std::numeric_limits<std::uint64_t>::max());
    return {};
}

std::string restart(Board& board, const Words& words) {
    using Mode = Board::RestartMode;
    constexpr std::array MODES{Mode::Drop, Mode::Stay, Mode::Ignore};
    Board::Restart restart;
    restart.mode = MODES.at(choice(words[0], {"drop", "stay", "ignore"}));
    if (words.size() > 1) {
        restart.away = Commands::milliseconds(words[1]);
    }
    board.restart = restart;
    return {};
}

std::string stall(Board& board, const Words& words) {
    const bool isReads = choice(words[0], {"writes", "reads"}) == 1;
    (isReads ? board.faults.stallReads : board.faults.stallWrites) = isOn(words[1]);
    return {};
}

std::string fail(Board& board, const Words& words) {
    if (!board.faults.failures.contains(words[0])) {
        throw std::invalid_argument("cannot fail: " + words[0]);
    }
    board.faults.failures[words[0]] = Commands::number(words[1], 0, MAX_COUNT);
    return {};
}

struct Command {
    std::size_t leastWords; ///< after its name
    std::size_t mostWords;
    std::function<std::string(Board&, const Words&)> run;
};

/// A command that has no answer.
template <typename Action> auto silently(Action action) {
    return [action](Board& board, const Words& words) {
        action(board, words);
        return std::string();
    };
}

const std::map<std::string, Command>& table() {
    static const std::map<std::string, Command> commands{
        {"plug", {0, 0, silently([](Board& board, const Words&) { board.plug(); })}},
        {"unplug", {0, 0, silently([](Board& board, const Words&) { board.unplug(); })}},
        {"unplug-after", {2, 2, unplugAfter}},
        {"cut", {1, MAX_COUNT, silently([](Board& board, const Words& words) {
                     board.sendAndUnplug(bytes(words));
                 })}},
        {"inputs", {0, 3, inputs}},
        {"outputs", {0, 0, outputs}},
        {"wire", {1, 2, wire}},
        {"log", {0, 1, log}},
        {"ignore", {2, 2, ignore}},
        {"send", {1, MAX_COUNT, silently([](Board& board, const Words& words) {
                      board.send(bytes(words));
                  })}},
        {"flood", {1, 2, flood}},
        {"firmware", {2, 2, silently([](Board& board, const Words& words) {
                          requireModel(board);
                          board.firmware.setVersion({decimalByte(words[0]), decimalByte(words[1])});
                      })}},
        {"product", {1, 1, silently([](Board& board, const Words& words) {
                         choice(words[0], {"6001", "6015"});
                         board.device.setProduct(
                             static_cast<std::uint16_t>(parse(words[0], HEXADECIMAL, 0, 0xFFFF)));
                     })}},
        {"restart", {1, 2, restart}},
        {"stall", {2, 2, stall}},
        {"fail", {2, 2, fail}},
        {"kernel-driver", {1, 1, silently([](Board& board, const Words& words) {
                               board.device.setKernelDriver(isOn(words[0]));
                           })}},
        {"capacity", {1, 1, silently([](Board& board, const Words& words) {
                          board.chip.setCapacity(sizeOf(words[0], 0));
                      })}},
        {"quit", {0, 0, silently([](Board& board, const Words&) { board.loop.stop(); })}},
    };
    return commands;
}

} // namespace

std::string_view Commands::help() {
    return HELP;
}

std::uint64_t Commands::number(const std::string& text, std::uint64_t least, std::uint64_t most) {
    return parse(text, DECIMAL, least, most);
}

std::chrono::milliseconds Commands::milliseconds(const std::string& text) {
    return std::chrono::milliseconds(number(text, 0, MAX_MILLISECONDS));
}

Commands::Words Commands::split(const std::string& line) {
    std::istringstream stream(line);
    Words words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

std::string Commands::run(const Words& words) {
    const std::string name = words.empty() ? "" : words.front();
    const Words rest(words.begin() + (words.empty() ? 0 : 1), words.end());
    if (name == "stats") {
        return statistics(rest);
    }
    const auto entry = table().find(name);
    if (entry == table().end()) {
        throw std::invalid_argument("unknown command: " + name);
    }
    if (rest.size() < entry->second.leastWords || rest.size() > entry->second.mostWords) {
        throw std::invalid_argument("wrong number of words after " + name);
    }
    std::string answer = entry->second.run(board_, rest);
    board_.device.service();
    return answer;
}

std::string Commands::statistics(const Words& names) const {
    Statistics values = snapshot();
    std::string result;
    for (const std::string& name : names) {
        result += std::to_string(values[name]) + " ";
    }
    if (names.empty()) {
        for (const auto& [name, value] : values) {
            result += name + "=" + std::to_string(value) + " ";
        }
    }
    result.pop_back();
    return result;
}
