#include "Program.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "Arguments.h"

namespace bridge {

int runProgram(const char* name, const std::function<int()>& run) {
    try {
        return run();
    } catch (const UsageError& error) {
        std::cerr << name << ": " << error.what() << '\n';
        return USAGE;
    } catch (const std::exception& error) {
        std::cerr << name << ": " << error.what() << '\n';
        return FAILED;
    }
}

void scaleTimes(const char* variable, std::initializer_list<std::chrono::milliseconds*> times) {
    using std::chrono::milliseconds;
    const char* text = std::getenv(variable);
    const double scale = text == nullptr ? 1 : std::strtod(text, nullptr);
    if (scale > 0 && scale < 1) {
        for (milliseconds* time : times) {
            const auto scaled = static_cast<double>(time->count()) * scale;
            *time = std::max(milliseconds(1), milliseconds(static_cast<milliseconds::rep>(scaled)));
        }
    }
}

} // namespace bridge
