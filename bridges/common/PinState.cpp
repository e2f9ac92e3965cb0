#include "PinState.h"

#include "Log.h"

namespace bridge {

void warnOfMissingPins(const PinState& state, const std::map<unsigned, std::string>& names) {
    for (const auto& [pin, name] : names) {
        if (!state.has(pin)) {
            log("the server has no pin " + std::to_string(pin) +
                (name.empty() ? "" : " for the name " + name) + "; it has pins 0 to " +
                std::to_string(state.pinCount() - 1));
        }
    }
}

} // namespace bridge
