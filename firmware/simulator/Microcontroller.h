#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "Simavr.h"

/// An ATmega1284P with the firmware in its flash and the board around it: a serial line to the
/// host, sixteen inputs, thirteen outputs, and the bridge's RESET#. All times are cycles of its
/// clock since power-on. There can be only one in a process. Not for use by several threads.
class Microcontroller {
public:
    using Cycle = std::uint64_t;
    static constexpr std::uint32_t FREQUENCY = 14'745'600;
    static constexpr std::size_t OUTPUT_COUNT = 13;
    static constexpr Cycle CYCLES_PER_BYTE = 1280; ///< ten bits at 115,200 baud

    struct SentByte {
        Cycle start; ///< of its first bit
        std::uint8_t value;
    };

    struct ReceivedByte {
        std::uint8_t value;
        bool isDamaged; ///< its stop bit is low
    };

    /// One byte each for port A and port B.
    struct Ports {
        std::uint8_t a;
        std::uint8_t b;
    };

    struct Event {
        Cycle at;
        std::string text;
    };

    /// Loads the program `elf`; throws std::runtime_error when it cannot.
    explicit Microcontroller(const std::string& elf);
    Microcontroller(const Microcontroller&) = delete;
    Microcontroller& operator=(const Microcontroller&) = delete;
    ~Microcontroller();

    /// Runs for at least this many cycles. Throws std::runtime_error when the program crashes.
    void run(Cycle cycles);
    Cycle now() const { return avr_->cycle; }

    /// Supply off and on: memory holds rubbish, the serial line is empty.
    void powerCycle();

    /// Replaces the instruction at hand by an endless loop, until the next reset.
    void hang();

    /// Levels of the inputs; those that are not driven are left to the pull-ups.
    void setInputs(Ports levels, Ports driven);

    /// Lets inputs change by themselves every `period` cycles, 0 for never.
    void toggleInputs(Ports mask, Cycle period);

    /// The outputs, device pin 0 first: '0', '1', or 'z' for a pin that is not driven.
    std::string outputs() const;

    /// "low", "released", or "high", which would fight the bridge.
    std::string bridgeReset() const;

    /// Appends bytes of the host, which arrive one after the other.
    void receive(const std::vector<ReceivedByte>& bytes);
    void setCyclesPerReceivedByte(Cycle cycles) { cyclesPerReceivedByte_ = cycles; }
    std::size_t bytesToReceive() const { return incoming_.size(); }

    /// What was sent since the last call.
    std::vector<SentByte> takeSent();

    /// Changes of the outputs, of RESET# and resets since the last call. Without a look at them,
    /// the oldest are forgotten.
    std::vector<Event> takeEvents();

    /// Bytes of the host that found the receiver full.
    std::uint64_t getOverruns() const { return overruns_; }
    std::uint64_t getWatchdogResets() const { return watchdogResets_; }

    /// Bytes of RAM that variables take, and the deepest that the stack ever was.
    std::size_t getStaticBytes() const { return staticBytes_; }
    std::size_t getStackBytes() const;

private:
    static std::uint8_t readPort(avr_t* avr, avr_io_addr_t address, void* self);
    static std::uint8_t readUartStatus(avr_t* avr, avr_io_addr_t address, void* self);
    static void uartSent(avr_irq_t* irq, std::uint32_t value, void* self);
    static void pinsWritten(avr_irq_t* irq, std::uint32_t value, void* self);
    static void controlWritten(avr_irq_t* irq, std::uint32_t value, void* self);
    static void resetting(avr_t* avr);

    void load(const std::string& elf);
    void attach();
    void findUart();
    void afterReset();
    void ignoreLowInterruptPins();
    void deliverByte();
    void noteChanges();
    void note(const std::string& text);
    std::uint8_t levelsOf(std::uint8_t levels, std::uint8_t driven, std::uint8_t toggled,
                          std::uint8_t pullUps) const;
    char levelOf(std::size_t output) const;
    bool isJtagPin(std::size_t output) const;
    Cycle cyclesPerByte() const;
    bool isLineSetRight() const;

    avr_t* avr_ = nullptr;
    avr_uart_t* uart_ = nullptr;
    avr_io_read_t readStatusBefore_ = nullptr;
    void (*resetBefore_)(avr_t*) = nullptr;
    std::size_t staticBytes_ = 0;
    bool isPoweringOn_ = false;
    std::vector<std::uint8_t> program_; ///< as loaded, to undo hang()

    Ports inputs_{0, 0};
    Ports drivenInputs_{0xFF, 0xFF};
    Ports toggledInputs_{0, 0};
    Cycle togglePeriod_ = 0;
    Cycle toggleStart_ = 0;

    std::deque<ReceivedByte> incoming_;
    Cycle nextArrival_ = 0;
    Cycle cyclesPerReceivedByte_ = CYCLES_PER_BYTE;
    std::uint64_t overruns_ = 0;

    std::vector<SentByte> sent_;
    Cycle holdingFree_ = 0; ///< when the transmitter takes the next byte
    Cycle shiftFree_ = 0;   ///< when it has sent all

    bool hasJtag_ = true;
    Cycle jtagWrite_ = 0; ///< the last write that would turn JTAG off, 0 for none
    std::uint64_t watchdogResets_ = 0;
    std::string lastOutputs_;
    std::string lastBridgeReset_;
    std::deque<Event> events_;
};
