#include "board/Options.h"

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
  --product 6001|6015   USB product id (6015)
  --inputs A B          input ports at power-on, hex bytes (00 00)
  --firmware MAJOR MINOR  version to tell, decimal (1 0)
  --restart MODE        drop, stay or ignore, see the command "restart" (drop)
  --unplugged           start with the board not plugged in
  --until-end-of-input  end when standard input ends
  --help                show this text

)";

class Reader {
public:
    explicit Reader(const std::vector<std::string>& allWords) : words(allWords) {}

    bool atEnd() const { return index == words.size(); }

    std::string next() {
        if (atEnd()) {
            throw std::invalid_argument("value missing after " + words.back());
        }
        return words[index++];
    }

    std::string rest() {
        std::string result;
        while (!atEnd()) {
            result += (result.empty() ? "" : " ") + next();
        }
        return result;
    }

private:
    const std::vector<std::string>& words;
    std::size_t index = 0;
};

void parseOption(const std::string& option, Reader& reader, Options& options) {
    if (option == "--help") {
        options.showHelp = true;
    } else if (option == "--directory") {
        options.directory = reader.next();
    } else if (option == "--control") {
        options.isControl = true;
        options.directory = reader.next();
        options.control = reader.rest();
    } else if (option == "--product") {
        options.setup.push_back("product " + reader.next());
    } else if (option == "--inputs") {
        const std::string portA = reader.next();
        options.setup.push_back("inputs " + portA + " " + reader.next() + " quiet");
    } else if (option == "--firmware") {
        const std::string major = reader.next();
        options.setup.push_back("firmware " + major + " " + reader.next());
    } else if (option == "--restart") {
        options.setup.push_back("restart " + reader.next());
    } else if (option == "--unplugged") {
        options.startsUnplugged = true;
    } else if (option == "--until-end-of-input") {
        options.endsWithInput = true;
    } else {
        throw std::invalid_argument("unknown option " + option);
    }
}

} // namespace

std::string_view Options::usage() {
    return USAGE;
}

Options Options::parse(const std::vector<std::string>& words) {
    Options options;
    Reader reader(words);
    while (!reader.atEnd()) {
        parseOption(reader.next(), reader, options);
    }
    if (!options.showHelp && options.directory.empty()) {
        throw std::invalid_argument("--directory or --control is needed");
    }
    return options;
}
