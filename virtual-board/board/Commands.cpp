#include "board/Commands.h"

#include <cstdio>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "board/Arguments.h"

namespace {

using arguments::byte;
using arguments::number;

constexpr std::uint64_t MAX_MILLISECONDS = 3'600'000;
constexpr std::uint64_t MAX_COUNT = std::numeric_limits<std::uint32_t>::max();

void requireWords(const Commands::Words& words, std::size_t least, std::size_t most) {
    if (words.size() < least || words.size() > most) {
        throw std::invalid_argument("wrong number of arguments for " + words.front());
    }
}

std::chrono::milliseconds milliseconds(const std::string& text) {
    return std::chrono::milliseconds(number(text, 0, MAX_MILLISECONDS));
}

std::string hexByte(std::uint8_t value) {
    char text[sizeof "ff"];
    std::snprintf(text, sizeof text, "%02x", static_cast<unsigned int>(value));
    return text;
}

constexpr std::string_view HELP =
    R"(Commands, one a line; the answer is one line, "ok", "ok TEXT" or "error REASON".
  plug                     put the board on the bus
  unplug                   pull it out; transfers under way end with an error
  unplug-after urbs N      pull it out when the N-th transfer from now is submitted
  unplug-after written N   pull it out once N more bytes came from the host
  unplug-after delivered N pull it out once N more data bytes reached the host
  unplug-after off         forget these
  cut HEX...               send bytes, then pull the board out once the host has them
  inputs A B [quiet]       set the input ports (hex bytes) and report the change unless quiet
  inputs                   show them
  outputs                  show the 13 outputs, pin 0 first, and how many were written
  log [FROM]               show the pin writes in order as PIN=VALUE, from the FROM-th (0: all)
  log clear                forget them
  ignore R|V|W|K on|off    take no notice of a request
  send HEX...              send bytes to the host as they are
  flood RATE|max [COUNT]   report input changes, RATE a second or as fast as they are read;
                           the n-th sets A to the high and B to the low byte of n
  flood off
  firmware MAJOR MINOR     version to tell (decimal)
  product 6001|6015        USB product id; takes effect on a board that is not plugged in
  restart drop [AWAY [DELAY]]   on the restart message leave the bus for AWAY ms (1000), DELAY ms
                           (0) after the message
  restart stay [AWAY [DELAY]]   stay on the bus, silent for AWAY ms
  restart ignore           no effect
  stall reads|writes on|off     hold transfers back
  fail NAME N              refuse the next N of: open claim reset purge baudrate read write
  kernel-driver on|off     let a kernel driver hold the interface (to be detached)
  hold-short-data on|off   keep less than a packet back until the latency timer (16 ms)
  speed BYTES|off          bytes a second that the serial line carries each way (11520 at 115200
                           baud); no limit by default
  capacity BYTES           bytes kept for a host that does not read; more are lost
  stats                    every counter and state as NAME=VALUE
  stats NAME...            values of these only
  wait NAME [=|>=|<=] N [MS]    answer when the value is reached (>= by default), or with an error
                           after MS milliseconds (5000)
  quit                     end the process
)";

} // namespace

Commands::Commands(Board& theBoard, std::function<std::size_t()> handleCount,
                   std::function<void()> quitFunction)
    : board(theBoard), openHandles(std::move(handleCount)), quit(std::move(quitFunction)) {}

std::string_view Commands::help() {
    return HELP;
}

Commands::Words Commands::split(const std::string& line) {
    std::istringstream stream(line);
    Words words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

const std::map<std::string, Commands::Function>& Commands::table() {
    static const std::map<std::string, Function> functions{
        {"plug", &Commands::plug},
        {"unplug", &Commands::unplug},
        {"unplug-after", &Commands::unplugAfter},
        {"cut", &Commands::cut},
        {"inputs", &Commands::inputs},
        {"outputs", &Commands::outputs},
        {"log", &Commands::log},
        {"ignore", &Commands::ignore},
        {"send", &Commands::send},
        {"flood", &Commands::flood},
        {"firmware", &Commands::firmware},
        {"product", &Commands::product},
        {"restart", &Commands::restart},
        {"stall", &Commands::stall},
        {"fail", &Commands::fail},
        {"kernel-driver", &Commands::kernelDriver},
        {"hold-short-data", &Commands::holdShortData},
        {"speed", &Commands::speed},
        {"capacity", &Commands::capacity},
        {"stats", &Commands::statistics},
        {"quit", &Commands::quitCommand},
    };
    return functions;
}

std::string Commands::run(const Words& words) {
    if (words.empty()) {
        throw std::invalid_argument("empty command");
    }
    const auto entry = table().find(words.front());
    if (entry == table().end()) {
        throw std::invalid_argument("unknown command: " + words.front());
    }
    return (this->*entry->second)(words);
}

std::map<std::string, std::uint64_t> Commands::snapshot() const {
    auto result = board.snapshot();
    result["handles"] = openHandles();
    return result;
}

std::string Commands::plug(const Words& words) {
    requireWords(words, 1, 1);
    board.plug();
    return {};
}

std::string Commands::unplug(const Words& words) {
    requireWords(words, 1, 1);
    board.unplug();
    return {};
}

std::string Commands::unplugAfter(const Words& words) {
    requireWords(words, 2, 3);
    Faults& faults = board.getFaults();
    if (words[1] == "off" && words.size() == 2) {
        faults.urbsLeft.reset();
        faults.writtenLeft.reset();
        faults.deliveredLeft.reset();
        return {};
    }
    requireWords(words, 3, 3);
    const std::uint64_t count = number(words[2], 1, MAX_COUNT);
    if (words[1] == "urbs") {
        faults.urbsLeft = count;
    } else if (words[1] == "written") {
        faults.writtenLeft = count;
    } else if (words[1] == "delivered") {
        faults.deliveredLeft = count;
    } else {
        throw std::invalid_argument("urbs, written, delivered or off expected");
    }
    return {};
}

std::string Commands::cut(const Words& words) {
    const auto bytes = arguments::bytes(words, 1);
    if (bytes.empty()) {
        throw std::invalid_argument("bytes expected");
    }
    board.sendAndUnplug(bytes);
    return {};
}

std::string Commands::inputs(const Words& words) {
    Firmware& firmware = board.getFirmware();
    if (words.size() == 1) {
        return hexByte(firmware.getInputsA()) + " " + hexByte(firmware.getInputsB());
    }
    requireWords(words, 3, 4);
    const bool isQuiet = words.size() == 4;
    if (isQuiet && words[3] != "quiet") {
        throw std::invalid_argument("quiet expected: " + words[3]);
    }
    firmware.setInputs(byte(words[1]), byte(words[2]), !isQuiet && board.getDevice().isPlugged());
    board.getDevice().service();
    return {};
}

std::string Commands::outputs(const Words& words) {
    requireWords(words, 1, 1);
    std::string result;
    for (std::size_t pin = 0; pin < Firmware::OUTPUT_COUNT; ++pin) {
        result += board.getFirmware().getOutput(pin) ? '1' : '0';
    }
    return result + " " + std::to_string(board.getFirmware().getWrites().size());
}

std::string Commands::log(const Words& words) {
    requireWords(words, 1, 2);
    if (words.size() == 2 && words[1] == "clear") {
        board.getFirmware().clearWrites();
        return {};
    }
    const auto& writes = board.getFirmware().getWrites();
    std::string result;
    for (std::size_t index = words.size() == 2 ? number(words[1], 0, MAX_COUNT) : 0;
         index < writes.size(); ++index) {
        result += (result.empty() ? "" : " ") + std::to_string(writes[index].pin) + "=" +
                  writes[index].value;
    }
    return result;
}

std::string Commands::ignore(const Words& words) {
    requireWords(words, 3, 3);
    if (words[1].size() != 1 || std::string_view("RVWK").find(words[1]) == std::string_view::npos) {
        throw std::invalid_argument("R, V, W or K expected: " + words[1]);
    }
    board.getFirmware().setIgnored(words[1].front(), arguments::onOrOff(words[2]));
    return {};
}

std::string Commands::send(const Words& words) {
    board.send(arguments::bytes(words, 1));
    return {};
}

std::string Commands::flood(const Words& words) {
    requireWords(words, 2, 3);
    if (words[1] == "off") {
        board.getFlood().stop();
        return {};
    }
    std::optional<std::uint32_t> rate;
    if (words[1] != "max") {
        rate = static_cast<std::uint32_t>(number(words[1], 1, 1'000'000));
    }
    std::optional<std::uint64_t> count;
    if (words.size() == 3) {
        count = number(words[2], 1, MAX_COUNT);
    }
    board.getFlood().start(rate, count);
    board.getDevice().service();
    return {};
}

std::string Commands::firmware(const Words& words) {
    requireWords(words, 3, 3);
    board.getFirmware().setVersion(static_cast<std::uint8_t>(number(words[1], 0, 0xFF)),
                                   static_cast<std::uint8_t>(number(words[2], 0, 0xFF)));
    return {};
}

std::string Commands::product(const Words& words) {
    requireWords(words, 2, 2);
    if (board.getDevice().isPlugged()) {
        throw std::invalid_argument("unplug the board first");
    }
    board.getDevice().setDescriptors(
        UsbDescriptors(static_cast<std::uint16_t>(arguments::hexadecimal(words[1], 0xFFFF))));
    return {};
}

std::string Commands::restart(const Words& words) {
    requireWords(words, 2, 4);
    Board::Restart restart;
    if (words[1] == "stay") {
        restart.mode = Board::RestartMode::Stay;
    } else if (words[1] == "ignore") {
        restart.mode = Board::RestartMode::Ignore;
    } else if (words[1] != "drop") {
        throw std::invalid_argument("drop, stay or ignore expected: " + words[1]);
    }
    if (words.size() > 2) {
        restart.away = milliseconds(words[2]);
    }
    if (words.size() > 3) {
        restart.delay = milliseconds(words[3]);
    }
    board.setRestart(restart);
    return {};
}

std::string Commands::stall(const Words& words) {
    requireWords(words, 3, 3);
    const bool isStalled = arguments::onOrOff(words[2]);
    if (words[1] == "reads") {
        board.getFaults().stallReads = isStalled;
    } else if (words[1] == "writes") {
        board.getFaults().stallWrites = isStalled;
    } else {
        throw std::invalid_argument("reads or writes expected: " + words[1]);
    }
    board.getDevice().service();
    return {};
}

std::string Commands::fail(const Words& words) {
    requireWords(words, 3, 3);
    if (!Faults::names().contains(words[1])) {
        throw std::invalid_argument("cannot fail: " + words[1]);
    }
    board.getFaults().failNext(words[1], static_cast<unsigned int>(number(words[2], 0, MAX_COUNT)));
    board.getDevice().service();
    return {};
}

std::string Commands::kernelDriver(const Words& words) {
    requireWords(words, 2, 2);
    board.getDevice().setKernelDriver(arguments::onOrOff(words[1]));
    return {};
}

std::string Commands::holdShortData(const Words& words) {
    requireWords(words, 2, 2);
    board.getChip().setHoldShortData(arguments::onOrOff(words[1]));
    board.getDevice().service();
    return {};
}

std::string Commands::speed(const Words& words) {
    requireWords(words, 2, 2);
    std::optional<std::uint32_t> bytesPerSecond;
    if (words[1] != "off") {
        bytesPerSecond = static_cast<std::uint32_t>(number(words[1], 1, 1'000'000));
    }
    board.setSpeed(bytesPerSecond);
    return {};
}

std::string Commands::capacity(const Words& words) {
    requireWords(words, 2, 2);
    board.getChip().setCapacity(number(words[1], 0, MAX_COUNT));
    return {};
}

std::string Commands::statistics(const Words& words) {
    auto values = snapshot();
    std::string result;
    if (words.size() == 1) {
        for (const auto& [name, value] : values) {
            result += (result.empty() ? "" : " ") + name + "=" + std::to_string(value);
        }
        return result;
    }
    for (std::size_t index = 1; index < words.size(); ++index) {
        result += (result.empty() ? "" : " ") + std::to_string(values[words[index]]);
    }
    return result;
}

std::string Commands::quitCommand(const Words& words) {
    requireWords(words, 1, 1);
    quit();
    return {};
}
