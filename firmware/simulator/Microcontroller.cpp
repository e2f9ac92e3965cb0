#include "Microcontroller.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace {

/// Addresses of registers as the processor's load and store instructions see them.
enum Register : avr_io_addr_t {
    PIN_A = 0x20,
    PIN_B = 0x23,
    DDR_C = 0x27,
    PORT_C = 0x28,
    DDR_D = 0x2A,
    PORT_D = 0x2B,
    MCU_CONTROL = 0x55,
    UART_STATUS = 0xC0,
    UART_CONTROL_C = 0xC2,
    UART_DIVIDER_LOW = 0xC4,
    UART_DIVIDER_HIGH = 0xC5,
};

constexpr std::size_t RAM_START = 0x100;
constexpr std::uint8_t RUBBISH = 0xA5;
constexpr std::uint8_t JTAG_OFF = 1U << 7U;
constexpr Microcontroller::Cycle JTAG_WINDOW = 4;
constexpr std::uint8_t DATA_REGISTER_EMPTY = 1U << 5U;
constexpr std::uint8_t DOUBLE_SPEED = 1U << 1U;
constexpr std::uint8_t EIGHT_BITS_NO_PARITY_ONE_STOP = 0x06;
constexpr std::size_t RECEIVER_ROOM = 2;
constexpr std::size_t EXTERNAL_INTERRUPTS = 3;
constexpr std::size_t MOST_EVENTS = 10'000;
constexpr std::array<std::uint8_t, 2> ENDLESS_LOOP{0xFF, 0xCF};

/// How far the line's two clocks may be apart before bytes are misread.
constexpr Microcontroller::Cycle WORST_CYCLES_PER_BYTE_OFF = Microcontroller::CYCLES_PER_BYTE / 40;

/// simavr hands no argument to its reset function.
Microcontroller* instance = nullptr;

} // namespace

Microcontroller::Microcontroller(const std::string& elf) {
    if (instance != nullptr) {
        throw std::logic_error("a second microcontroller");
    }
    avr_ = avr_make_mcu_by_name("atmega1284p");
    if (avr_ == nullptr) {
        throw std::runtime_error("libsimavr knows no atmega1284p");
    }
    instance = this;
    avr_init(avr_);
    load(elf);
    attach();
    powerCycle();
}

Microcontroller::~Microcontroller() {
    instance = nullptr;
    avr_terminate(avr_);
}

void Microcontroller::load(const std::string& elf) {
    elf_firmware_t firmware{};
    if (elf_read_firmware(elf.c_str(), &firmware) != 0 || firmware.flashsize == 0) {
        throw std::runtime_error("cannot load " + elf);
    }
    avr_load_firmware(avr_, &firmware);
    avr_->frequency = FREQUENCY;
    staticBytes_ = firmware.datasize + firmware.bsssize;
    program_.assign(avr_->flash, avr_->flash + avr_->flashend + 1);
}

void Microcontroller::attach() {
    avr_->sleep = [](avr_t*, avr_cycle_count_t) {};
    resetBefore_ = avr_->reset;
    avr_->reset = resetting;
    for (const avr_io_addr_t address : {PIN_A, PIN_B}) {
        auto& reader = avr_->io[AVR_DATA_TO_IO(address)].r;
        reader.c = readPort;
        reader.param = this;
    }
    for (const avr_io_addr_t address : {DDR_C, PORT_C, DDR_D, PORT_D}) {
        avr_irq_register_notify(avr_iomem_getirq(avr_, address, nullptr, AVR_IOMEM_IRQ_ALL),
                                pinsWritten, this);
    }
    avr_irq_register_notify(avr_iomem_getirq(avr_, MCU_CONTROL, nullptr, AVR_IOMEM_IRQ_ALL),
                            controlWritten, this);
    findUart();
    auto& status = avr_->io[AVR_DATA_TO_IO(UART_STATUS)].r;
    readStatusBefore_ = status.c;
    status.c = readUartStatus;
    avr_irq_register_notify(avr_io_getirq(avr_, AVR_IOCTL_UART_GETIRQ('0'), UART_IRQ_OUTPUT),
                            uartSent, this);
}

void Microcontroller::findUart() {
    for (avr_io_t* port = avr_->io_port; port != nullptr; port = port->next) {
        auto* const candidate = reinterpret_cast<avr_uart_t*>(port);
        if (std::string_view(port->kind) == "uart" && candidate->name == '0') {
            uart_ = candidate;
        }
    }
    if (uart_ == nullptr) {
        throw std::runtime_error("libsimavr's atmega1284p has no serial line");
    }
    uart_->flags = 0; // no output on the terminal, no sleep while the program polls
}

void Microcontroller::powerCycle() {
    isPoweringOn_ = true;
    std::fill(avr_->data + RAM_START, avr_->data + avr_->ramend + 1, RUBBISH);
    incoming_.clear();
    avr_reset(avr_);
    isPoweringOn_ = false;
    ignoreLowInterruptPins();
}

/// A reset makes simavr follow them again.
void Microcontroller::ignoreLowInterruptPins() {
    for (std::size_t number = 0; number < EXTERNAL_INTERRUPTS; ++number) {
        avr_extint_set_strict_lvl_trig(avr_, static_cast<std::uint8_t>(number), 0);
    }
}

void Microcontroller::resetting(avr_t* avr) {
    if (instance->resetBefore_ != nullptr) {
        instance->resetBefore_(avr);
    }
    instance->afterReset();
}

void Microcontroller::afterReset() {
    std::copy(program_.begin(), program_.end(), avr_->flash);
    hasJtag_ = true;
    jtagWrite_ = 0;
    holdingFree_ = shiftFree_ = avr_->cycle;
    if (!isPoweringOn_) {
        ++watchdogResets_;
    }
    note(isPoweringOn_ ? "reset power" : "reset watchdog");
    noteChanges();
}

void Microcontroller::run(Cycle cycles) {
    // How late a byte may arrive for an awake processor; a sleeping one would not look.
    constexpr Cycle MOST_AT_ONCE = 64;
    const Cycle end = avr_->cycle + cycles;
    while (avr_->cycle < end) {
        while (!incoming_.empty() && nextArrival_ <= avr_->cycle) {
            deliverByte();
        }
        avr_->run_cycle_limit = std::min<Cycle>(MOST_AT_ONCE, end - avr_->cycle);
        const std::uint64_t resets = watchdogResets_;
        const int state = avr_run(avr_);
        if (watchdogResets_ != resets) {
            ignoreLowInterruptPins();
        }
        if (state == cpu_Done || state == cpu_Crashed) {
            throw std::runtime_error("the program crashed");
        }
    }
}

void Microcontroller::hang() {
    std::copy(ENDLESS_LOOP.begin(), ENDLESS_LOOP.end(), avr_->flash + avr_->pc);
}

void Microcontroller::setInputs(Ports levels, Ports driven) {
    inputs_ = levels;
    drivenInputs_ = driven;
}

void Microcontroller::toggleInputs(Ports mask, Cycle period) {
    toggledInputs_ = mask;
    togglePeriod_ = period;
    toggleStart_ = avr_->cycle;
}

std::uint8_t Microcontroller::levelsOf(std::uint8_t levels, std::uint8_t driven,
                                       std::uint8_t toggled, std::uint8_t pullUps) const {
    const bool isToggled =
        togglePeriod_ != 0 && ((avr_->cycle - toggleStart_) / togglePeriod_) % 2 != 0;
    const unsigned int outside = levels ^ (isToggled ? toggled : 0U);
    return static_cast<std::uint8_t>((outside & driven) | (pullUps & ~driven));
}

std::uint8_t Microcontroller::readPort(avr_t* avr, avr_io_addr_t address, void* self) {
    const auto& board = *static_cast<Microcontroller*>(self);
    // A port's registers follow each other: levels, direction, and output or pull-up.
    const std::uint8_t direction = avr->data[address + 1];
    const std::uint8_t port = avr->data[address + 2];
    const bool isA = address == PIN_A;
    const std::uint8_t levels =
        board.levelsOf(isA ? board.inputs_.a : board.inputs_.b,
                       isA ? board.drivenInputs_.a : board.drivenInputs_.b,
                       isA ? board.toggledInputs_.a : board.toggledInputs_.b, port);
    return static_cast<std::uint8_t>((levels & ~direction) | (port & direction));
}

Microcontroller::Cycle Microcontroller::cyclesPerByte() const {
    const unsigned int divider =
        avr_->data[UART_DIVIDER_LOW] | ((avr_->data[UART_DIVIDER_HIGH] & 0x0FU) << 8U);
    const Cycle perBit = ((avr_->data[UART_STATUS] & DOUBLE_SPEED) != 0 ? 8U : 16U);
    constexpr Cycle BITS = 10;
    return BITS * perBit * (divider + 1U);
}

bool Microcontroller::isLineSetRight() const {
    const Cycle cycles = cyclesPerByte();
    return cycles + WORST_CYCLES_PER_BYTE_OFF >= CYCLES_PER_BYTE &&
           cycles <= CYCLES_PER_BYTE + WORST_CYCLES_PER_BYTE_OFF &&
           avr_->data[UART_CONTROL_C] == EIGHT_BITS_NO_PARITY_ONE_STOP;
}

void Microcontroller::uartSent(avr_irq_t* /*irq*/, std::uint32_t value, void* self) {
    auto& board = *static_cast<Microcontroller*>(self);
    const Cycle now = board.avr_->cycle;
    const auto byte = static_cast<std::uint8_t>(value);
    if (now < board.holdingFree_) {
        return board.note("transmitter overrun");
    }
    board.holdingFree_ = std::max(now, board.shiftFree_);
    board.shiftFree_ = board.holdingFree_ + board.cyclesPerByte();
    const bool isReadable = board.isLineSetRight();
    board.sent_.push_back(
        {board.holdingFree_, isReadable ? byte : static_cast<std::uint8_t>(~byte)});
}

std::uint8_t Microcontroller::readUartStatus(avr_t* avr, avr_io_addr_t address, void* /*uart*/) {
    const std::uint8_t status = instance->readStatusBefore_(avr, address, instance->uart_);
    const auto others = static_cast<std::uint8_t>(status & ~DATA_REGISTER_EMPTY);
    return avr->cycle < instance->holdingFree_ ? others : others | DATA_REGISTER_EMPTY;
}

void Microcontroller::receive(const std::vector<ReceivedByte>& bytes) {
    if (incoming_.empty()) {
        nextArrival_ = std::max(nextArrival_, avr_->cycle) + cyclesPerReceivedByte_;
    }
    incoming_.insert(incoming_.end(), bytes.begin(), bytes.end());
}

void Microcontroller::deliverByte() {
    const ReceivedByte byte = incoming_.front();
    incoming_.pop_front();
    if (!incoming_.empty()) {
        nextArrival_ += cyclesPerReceivedByte_;
    }
    if (avr_regbit_get(avr_, uart_->rxen) == 0) {
        return;
    }
    const auto waiting = static_cast<std::uint16_t>(uart_->input.write - uart_->input.read);
    if (waiting % uart_fifo_fifo_size >= RECEIVER_ROOM) {
        ++overruns_;
        return;
    }
    const bool isReadable = isLineSetRight();
    std::uint32_t value = isReadable ? byte.value : static_cast<std::uint8_t>(~byte.value);
    if (byte.isDamaged) {
        value |= UART_INPUT_FE;
    }
    avr_raise_irq(avr_io_getirq(avr_, AVR_IOCTL_UART_GETIRQ('0'), UART_IRQ_INPUT), value);
    // It has arrived by now; simavr would take the time of another byte.
    avr_raise_interrupt(avr_, &uart_->rxc);
}

std::vector<Microcontroller::SentByte> Microcontroller::takeSent() {
    return std::exchange(sent_, {});
}

void Microcontroller::controlWritten(avr_irq_t* /*irq*/, std::uint32_t value, void* self) {
    auto& board = *static_cast<Microcontroller*>(self);
    if ((value & JTAG_OFF) == 0) {
        board.jtagWrite_ = 0;
        return;
    }
    const Cycle now = board.avr_->cycle;
    if (board.jtagWrite_ != 0 && now - board.jtagWrite_ <= JTAG_WINDOW) {
        board.hasJtag_ = false;
        board.noteChanges();
    }
    board.jtagWrite_ = now;
}

void Microcontroller::pinsWritten(avr_irq_t* /*irq*/, std::uint32_t /*value*/, void* self) {
    static_cast<Microcontroller*>(self)->noteChanges();
}

bool Microcontroller::isJtagPin(std::size_t output) const {
    constexpr std::size_t FIRST = 2;
    constexpr std::size_t LAST = 5;
    return hasJtag_ && output >= FIRST && output <= LAST;
}

char Microcontroller::levelOf(std::size_t output) const {
    constexpr std::size_t PINS_OF_PORT_C = 8;
    constexpr std::size_t FIRST_PIN_OF_PORT_D = 2;
    const bool isC = output < PINS_OF_PORT_C;
    const std::size_t bit = isC ? output : output - PINS_OF_PORT_C + FIRST_PIN_OF_PORT_D;
    const unsigned int mask = 1U << bit;
    if ((avr_->data[isC ? DDR_C : DDR_D] & mask) == 0 || isJtagPin(output)) {
        return 'z';
    }
    return (avr_->data[isC ? PORT_C : PORT_D] & mask) == 0 ? '0' : '1';
}

std::string Microcontroller::outputs() const {
    std::string result;
    for (std::size_t output = 0; output < OUTPUT_COUNT; ++output) {
        result += levelOf(output);
    }
    return result;
}

std::string Microcontroller::bridgeReset() const {
    constexpr unsigned int MASK = 1U << 7U;
    // A pull-up is one towards this supply, which the bridge may not have.
    if ((avr_->data[PORT_D] & MASK) != 0) {
        return "high";
    }
    return (avr_->data[DDR_D] & MASK) != 0 ? "low" : "released";
}

void Microcontroller::noteChanges() {
    if (std::string levels = outputs(); levels != lastOutputs_) {
        lastOutputs_ = levels;
        note("outputs " + levels);
    }
    if (std::string level = bridgeReset(); level != lastBridgeReset_) {
        lastBridgeReset_ = level;
        note("bridge-reset " + level);
    }
}

void Microcontroller::note(const std::string& text) {
    events_.push_back({avr_->cycle, text});
    if (events_.size() > MOST_EVENTS) {
        events_.pop_front();
    }
}

std::vector<Microcontroller::Event> Microcontroller::takeEvents() {
    std::vector<Event> result(events_.begin(), events_.end());
    events_.clear();
    return result;
}

std::size_t Microcontroller::getStackBytes() const {
    const std::uint8_t* const end = avr_->data + avr_->ramend + 1;
    const std::uint8_t* const touched =
        std::find_if(static_cast<const std::uint8_t*>(avr_->data) + RAM_START + staticBytes_, end,
                     [](std::uint8_t byte) { return byte != RUBBISH; });
    return static_cast<std::size_t>(end - touched);
}
