#include <gpio-client/OutputMemory.h>

namespace gpioclient {

void OutputMemory::forget(PinMask outputs) noexcept {
    doubted_ = outputs;
    firstAnswer_.reset();
    written_ = {};
}

void OutputMemory::remember(unsigned pin, Level level) noexcept {
    doubted_ &= ~maskOf(pin);
    written_.set(pin, level);
}

Levels OutputMemory::merge(const Levels& answer) noexcept {
    if (!firstAnswer_) {
        firstAnswer_ = answer.high;
    }
    doubted_ &= ~(answer.high ^ *firstAnswer_);
    const PinMask told = answer.known & ~doubted_;
    const PinMask own = written_.known & ~answer.known;
    return {(answer.high & told) | (written_.high & own), told | own};
}

} // namespace gpioclient
