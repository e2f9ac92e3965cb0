#include "board/Options.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr std::string_view USAGE =
    R"(Usage: virtual-board --directory DIR [OPTION]...
       virtual-board --control DIR COMMAND...

The first form emulates an I/O board on USB for programs that run with
LD_PRELOAD=.../libvirtual-usb.so and VIRTUAL_USB_DIRECTORY=DIR, until it is told to quit.
The second form sends one command to the board of that directory, prints the answer and exits
with 0 when it was "ok".

Options:
  --directory DIR       an existing directory for the sockets "bus" and "control"
  --firmware-socket PATH  the firmware is that of the firmware-simulator at this socket
  --unplugged           start with the board not plugged in
  --until-end-of-input  end when standard input ends
  --COMMAND [WORD]...   run a command before the board is plugged in, such as --product 6001,
                        --inputs 01 80, --firmware 2 5 or --restart stay
  --help                show this text

)";

/// The words of one option with blanks between them.
std::string joined(std::vector<std::string>::const_iterator from,
                   std::vector<std::string>::const_iterator to) {
    std::string result;
    for (; from != to; ++from) {
        result += (result.empty() ? "" : " ") + *from;
    }
    return result;
}

} // namespace

std::string_view Options::usage() {
    return USAGE;
}

Options Options::parse(const std::vector<std::string>& words) {
    Options options;
    if (words.size() > 2 && words[0] == "--control") {
        options.isControl = true;
        options.directory = words[1];
        options.control = joined(words.begin() + 2, words.end());
        return options;
    }
    for (auto word = words.begin(); word != words.end();) {
        if (!word->starts_with("--")) {
            throw std::invalid_argument("not an option: " + *word);
        }
        const auto next = std::find_if(word + 1, words.end(), [](const std::string& other) {
            return other.starts_with("--");
        });
        if (*word == "--help") {
            options.showHelp = true;
        } else if (*word == "--directory") {
            options.directory = joined(word + 1, next);
        } else if (*word == "--firmware-socket") {
            options.firmwareSocket = joined(word + 1, next);
        } else if (*word == "--unplugged") {
            options.startsUnplugged = true;
        } else if (*word == "--until-end-of-input") {
            options.endsWithInput = true;
        } else {
            options.setup.push_back(joined(word, next).substr(2));
        }
        word = next;
    }
    if (!options.showHelp && options.directory.empty()) {
        throw std::invalid_argument("--directory or --control is needed");
    }
    return options;
}
