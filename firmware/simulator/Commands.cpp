#include "Commands.h"

#include <limits>
#include <sstream>
#include <stdexcept>

namespace {

constexpr std::string_view HELP =
    R"(Commands, one a line; the answer is one line, "ok", "ok TEXT" or "error REASON". Numbers are
decimal, times are cycles of the 14.7456 MHz clock since power-on, bytes are hexadecimal.
  run CYCLES              let time pass (with --stepped only); answers with the new time
  time                    the present time
  inputs A B [DRIVEN_A DRIVEN_B]  levels of the ports; what is not driven is open (ff ff)
  toggle A B PERIOD       let these inputs change every PERIOD cycles; 0 to stop
  outputs                 the 13 outputs, pin 0 first: 0, 1, or z for not driven
  bridge-reset            low, released or high
  receive BYTE...         bytes from the host, one after the other; BYTE! has a low stop bit
  pace CYCLES             what a byte from the host takes (1280)
  sent                    START:BYTE of all bytes sent since the last such command (--stepped only)
  events                  TIME:TEXT of all changes of outputs and RESET# and of all resets since the
                          last such command, separated by commas (--stepped only)
  stats                   overruns, to-receive, watchdog-resets, static-bytes and stack-bytes
  hang                    replace the instruction at hand by an endless loop until the next reset
  power-cycle             supply off and on
  watch                   send the lines "outputs LEVELS" and "bridge-reset LEVEL", now and whenever
                          they change (not with --stepped)
  quit                    end the process
)";

std::uint64_t number(const std::string& word, int base, std::uint64_t most) {
    std::size_t length = 0;
    std::uint64_t value = 0;
    try {
        value = std::stoull(word, &length, base);
    } catch (const std::exception&) {
        length = 0;
    }
    if (length == 0 || length != word.size() || word[0] == '-' || value > most) {
        throw std::invalid_argument("not a number in range: " + word);
    }
    return value;
}

std::uint8_t byte(const std::string& word) {
    return static_cast<std::uint8_t>(number(word, 16, 0xFF));
}

std::uint64_t cycles(const std::string& word) {
    return number(word, 10, std::numeric_limits<std::uint32_t>::max());
}

void requireArguments(const std::vector<std::string>& words, std::size_t count) {
    if (words.size() != count + 1) {
        throw std::invalid_argument("wrong number of arguments for " + words.front());
    }
}

} // namespace

std::string_view Commands::help() {
    return HELP;
}

std::string Commands::run(const std::string& line) {
    std::istringstream stream(line);
    Words words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    if (words.empty()) {
        throw std::invalid_argument("empty command");
    }
    const std::string& name = words.front();
    if (name == "inputs") {
        setInputs(words);
    } else if (name == "toggle") {
        toggle(words);
    } else if (name == "receive") {
        receive(words);
    } else if (name == "pace") {
        requireArguments(words, 1);
        board_.setCyclesPerReceivedByte(cycles(words[1]));
    } else if (name == "hang") {
        board_.hang();
    } else if (name == "power-cycle") {
        board_.powerCycle();
    } else if (name == "run") {
        requireArguments(words, 1);
        board_.run(cycles(words[1]));
        return std::to_string(board_.now());
    } else if (name == "time") {
        return std::to_string(board_.now());
    } else if (name == "outputs") {
        return board_.outputs();
    } else if (name == "bridge-reset") {
        return board_.bridgeReset();
    } else if (name == "sent") {
        return sent();
    } else if (name == "events") {
        return events();
    } else if (name == "stats") {
        return statistics();
    } else {
        throw std::invalid_argument("unknown command: " + name);
    }
    return {};
}

void Commands::setInputs(const Words& words) {
    Microcontroller::Ports driven{0xFF, 0xFF};
    if (words.size() == 5) {
        driven = {byte(words[3]), byte(words[4])};
    } else {
        requireArguments(words, 2);
    }
    board_.setInputs({byte(words[1]), byte(words[2])}, driven);
}

void Commands::toggle(const Words& words) {
    requireArguments(words, 3);
    board_.toggleInputs({byte(words[1]), byte(words[2])}, cycles(words[3]));
}

void Commands::receive(const Words& words) {
    std::vector<Microcontroller::ReceivedByte> bytes;
    for (std::size_t index = 1; index < words.size(); ++index) {
        std::string word = words[index];
        const bool isDamaged = word.ends_with('!');
        if (isDamaged) {
            word.pop_back();
        }
        bytes.push_back({byte(word), isDamaged});
    }
    board_.receive(bytes);
}

std::string Commands::sent() {
    std::ostringstream text;
    for (const auto& [start, value] : board_.takeSent()) {
        text << std::dec << start << ':' << std::hex << unsigned{value} << ' ';
    }
    return text.str();
}

std::string Commands::events() {
    std::string text;
    for (const auto& event : board_.takeEvents()) {
        text += (text.empty() ? "" : ",") + std::to_string(event.at) + ":" + event.text;
    }
    return text;
}

std::string Commands::statistics() const {
    return "overruns=" + std::to_string(board_.getOverruns()) +
           " to-receive=" + std::to_string(board_.bytesToReceive()) +
           " watchdog-resets=" + std::to_string(board_.getWatchdogResets()) +
           " static-bytes=" + std::to_string(board_.getStaticBytes()) +
           " stack-bytes=" + std::to_string(board_.getStackBytes());
}
