#include "ftdi/FtdiService.h"

#include <algorithm>
#include <mutex>

#include <libusb.h>

#include "concurrent/Thread.h"
#include "log/Logger.h"
#include "log/OptionalDebug.h"

namespace {

constexpr int FTDI_VENDOR_ID = 0x0403;
constexpr int FIRST_PRODUCT_ID = 0x6001;
constexpr int FT_X_PRODUCT_ID = 0x6015;
constexpr int BAUD_RATE = 115200;
constexpr long RESTART_MICROS = 10000000;

constexpr int MESSAGE_LENGTH = 4;
constexpr int ATTEMPTS = 12;
constexpr int ATTEMPTS_PER_REQUEST = 4;

constexpr int PORT_C_PINS = 8;
constexpr int LAST_OUTPUT_PIN = 12;

// A flush that meets nothing but errors has lost its device. One of this many reads (half a
// minute of messages at the full line speed) has a board that never falls silent.
constexpr int FLUSH_ERRORS_IN_A_ROW = 10;
constexpr int FLUSH_READS = 100000;

// A wait for USB events that fails is repeated for a second at most: if it is broken for good, the
// library finds so too and fails the transfer.
constexpr int EVENT_FAILURES = 100;
constexpr long EVENT_PAUSE_MICROS = 10000;

GpioLog::Logger* const LOGGER = new GpioLog::Logger("FtdiService");

} // namespace

FtdiService::FtdiService()
    : readLock(std::make_unique<lang::Object>()), writeLock(std::make_unique<lang::Object>()),
      pinLock(std::make_unique<lang::Object>()), ftdic() {}

FtdiService::~FtdiService() {
    pinLock.reset();
    readLock.reset();
    writeLock.reset();
}

bool FtdiService::initializeLibFTDI() {
    const std::lock_guard<lang::Object> guard(*this);
    const int result = ftdi_init(&ftdic);
    if (result < 0) {
        LOGGER->error("ftdi_init failed");
    }
    ftdi_set_interface(&ftdic, INTERFACE_ANY);
    return result >= 0 && openDevice();
}

bool FtdiService::openDevice() {
    int result = ftdi_usb_open(&ftdic, FTDI_VENDOR_ID, FIRST_PRODUCT_ID);
    int product = FIRST_PRODUCT_ID;
    if (result < 0) {
        result = ftdi_usb_open(&ftdic, FTDI_VENDOR_ID, FT_X_PRODUCT_ID);
        product = FT_X_PRODUCT_ID;
    }
    if (result < 0) {
        LOGGER->error("unable to open ftdi device: %d (%s)", result, errorText());
        return false;
    }
    pidVersion = product;
#pragma GCC diagnostic push
    // The call that replaces it empties the chip's buffers the other way round.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    result = ftdi_usb_purge_buffers(&ftdic);
#pragma GCC diagnostic pop
    if (result < 0) {
        LOGGER->error("Error when purging buffers: %d (%s)", result, errorText());
        return false;
    }
    result = ftdi_set_baudrate(&ftdic, BAUD_RATE);
    if (result < 0) {
        LOGGER->error("unable to set baudrate: %d (%s)", result, errorText());
        return false;
    }
    LOGGER->debug("Succesfully initialized libftdi & opened device");
    LOGGER->debug("FTDI driver version: %s", ftdi_get_library_version().version_str);
    return true;
}

void FtdiService::deinitializeLibFTDI() {
    const std::lock_guard<lang::Object> guard(*this);
    const int result = ftdi_usb_close(&ftdic);
    if (result < 0) {
        LOGGER->error("Error while closing ftdi usb device: %d (%s)", result, errorText());
    }
    ftdi_deinit(&ftdic);
}

bool FtdiService::initWithoutReset() {
    const std::lock_guard<lang::Object> guard(*this);
    if (!initializeLibFTDI() || !flush()) {
        giveUp();
        return false;
    }
    LOGGER->debug("PID: %04X, requesting version info", pidVersion);
    const bool answered = versionRequestAndBlockTillResponse();
    LOGGER->debug("Connected: %s,", answered ? "true" : "false");
    deviceAvailable = true;
    return true;
}

bool FtdiService::initWithReset() {
    const std::lock_guard<lang::Object> guard(*this);
    if (!initializeLibFTDI() || !flush() || !sendResets()) {
        giveUp();
        return false;
    }
    concurrent::Thread::sleep(RESTART_MICROS);
    deviceAvailable = initializeLibFTDI();
    return deviceAvailable;
}

/// After a connect that failed.
void FtdiService::giveUp() {
    deinitializeLibFTDI();
    deviceAvailable = false;
}

/// Drains what the chip still holds. Returns false when the device is gone.
bool FtdiService::flush() {
    Message buffer{};
    int errors = 0;
    for (int reads = 0; reads < FLUSH_READS && errors < FLUSH_ERRORS_IN_A_ROW; ++reads) {
        const int count = ftdi_read_data(&ftdic, buffer.data(), MESSAGE_LENGTH);
        errors = count < 0 ? errors + 1 : 0;
        if (count == MESSAGE_LENGTH) {
            LOGGER->debug("flushed msg %c %02X %02X %c", buffer[0], buffer[1], buffer[2],
                          buffer[3]);
            continue;
        }
        LOGGER->debug("flushed %d bytes", count);
        if (count == 0) {
            return true;
        }
    }
    return errors < FLUSH_ERRORS_IN_A_ROW;
}

/// Returns false when the restart could not be asked for.
bool FtdiService::sendResets() {
    Message reset = {'K', 0, 0, 'k'};
    if (pidVersion == FT_X_PRODUCT_ID) {
        LOGGER->debug("PID: %04X, sending one reset only", pidVersion);
        return writeToFTDI(reset.data(), MESSAGE_LENGTH);
    }
    LOGGER->debug("PID: %04X, sending reset commands until connection is lost.", pidVersion);
    while (writeToFTDI(reset.data(), MESSAGE_LENGTH)) {
    }
    return true;
}

bool FtdiService::writeToFTDI(unsigned char* buffer, int length) {
    const std::lock_guard<lang::Object> guard(*writeLock);
    ftdi_transfer_control* const transfer = ftdi_write_data_submit(&ftdic, buffer, length);
    if (transfer == nullptr) {
        LOGGER->error("writing to ftdi failed: (%s)", errorText());
        return false;
    }
    waitFor(transfer->completed);
    const int result = ftdi_transfer_data_done(transfer);
    if (result < 0) {
        LOGGER->error("unable to write: %d (%s)", result, errorText());
        return false;
    }
    if (length != MESSAGE_LENGTH) {
        LOGGER->debug("sent message to FTDI-chip");
    } else {
        GpioLog::debugIfEnabled(*LOGGER, "sent %c %02X %02X %c to FTDI-chip", buffer[0], buffer[1],
                                buffer[2], buffer[3]);
    }
    return true;
}

bool FtdiService::blockingReadFromFtdi(unsigned char* buffer, int length) {
    const std::lock_guard<lang::Object> guard(*readLock);
    LOGGER->debug("Submitting read");
    ftdi_transfer_control* const transfer = ftdi_read_data_submit(&ftdic, buffer, length);
    if (transfer == nullptr) {
        LOGGER->debug("Error while submitting transfer: %s", errorText());
        return false;
    }
    GpioLog::debugIfEnabled(*LOGGER, "Starting wait till read is done");
    waitFor(transfer->completed);
    return ftdi_transfer_data_done(transfer) == length;
}

/// The library's own wait polls without a pause. This one sleeps until the transfer is complete,
/// whichever thread handles its events, and leaves the result to the library's call, as it does
/// the whole wait when there is nothing to wait with or the waiting goes on failing.
void FtdiService::waitFor(int& completed) {
    int failures = ftdic.usb_ctx == nullptr ? EVENT_FAILURES : 0;
    while (failures < EVENT_FAILURES &&
           std::atomic_ref(completed).load(std::memory_order_relaxed) == 0) {
        const int result = libusb_handle_events_completed(ftdic.usb_ctx, &completed);
        if (result >= 0) {
            failures = 0;
        } else if (result != LIBUSB_ERROR_INTERRUPTED) {
            ++failures;
            concurrent::Thread::sleep(EVENT_PAUSE_MICROS);
        }
    }
    // Another thread may have handled the events: what it wrote before the mark is seen from here.
    std::atomic_thread_fence(std::memory_order_acquire);
}

/// The library has no text before its first error; printf's own for none stands in.
const char* FtdiService::errorText() {
    const char* const text = ftdi_get_error_string(&ftdic);
    return text != nullptr ? text : "(null)";
}

bool FtdiService::sendReadAndBlockTillResponse() {
    const std::optional<Message> reply = request('R', 'r', deviceAvailable);
    if (reply) {
        storeInputs((*reply)[1], (*reply)[2]);
    }
    return reply.has_value();
}

bool FtdiService::versionRequestAndBlockTillResponse() {
    std::atomic<bool> unheeded = false;
    const std::optional<Message> reply = request('V', 'v', unheeded);
    if (reply) {
        storeFirmwareVersion((*reply)[1], (*reply)[2]);
    }
    return reply.has_value();
}

/// Sends the request before every fourth byte until its reply has come; `available` follows each
/// send and each read.
std::optional<FtdiService::Message> FtdiService::request(unsigned char first, unsigned char last,
                                                         std::atomic<bool>& available) {
    Message buffer{};
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        Message message = {first, '0', '0', last};
        available =
            attempt % ATTEMPTS_PER_REQUEST != 0 || writeToFTDI(message.data(), MESSAGE_LENGTH);
        if (!available) {
            return std::nullopt;
        }
        available = receiveInto(buffer);
        if (!available) {
            continue;
        }
        inputChanged(buffer.data());
        if (buffer[0] == first && buffer[3] == last) {
            return buffer;
        }
    }
    return std::nullopt;
}

void FtdiService::storeFirmwareVersion(unsigned char majorNumber, unsigned char minorNumber) {
    const std::string version =
        "v" + std::to_string(majorNumber) + "." + std::to_string(minorNumber);
    {
        const std::lock_guard<std::mutex> guard(firmwareVersionLock);
        firmwareVersion = version;
    }
    LOGGER->debug("Firmware Version: %s", version.c_str());
}

bool FtdiService::readAndParseMessage() {
    GpioLog::debugIfEnabled(*LOGGER, "Starting to read for a new message from FTDI-chip");
    Message buffer{};
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        if (!receiveInto(buffer)) {
            LOGGER->error("Error while starting read from ftdi device: (%s)", errorText());
            continue;
        }
        GpioLog::debugIfEnabled(*LOGGER, "received: [%x]", buffer[3]);
        if (inputChanged(buffer.data()) || (buffer[0] == 'R' && buffer[3] == 'r')) {
            deviceAvailable = true;
            return true;
        }
    }
    deviceAvailable = false;
    return false;
}

/// Shifts the next byte into the back of the buffer.
bool FtdiService::receiveInto(Message& buffer) {
    unsigned char byte = 0;
    if (!blockingReadFromFtdi(&byte, 1)) {
        return false;
    }
    std::rotate(buffer.begin(), buffer.begin() + 1, buffer.end());
    buffer.back() = byte;
    return true;
}

bool FtdiService::inputChanged(unsigned char* message) {
    if (message[0] != 'I' || message[3] != 'i') {
        return false;
    }
    GpioLog::debugIfEnabled(*LOGGER, "received update message: (%02X %02X %02X %02X)", message[0],
                            message[1], message[2], message[3]);
    storeInputs(message[1], message[2]);
    return true;
}

void FtdiService::storeInputs(unsigned char portA, unsigned char portB) {
    const std::lock_guard<lang::Object> guard(*pinLock);
    last_known_portA_Value = portA;
    last_known_portB_Value = portB;
}

bool FtdiService::writePinToFTDI(unsigned char pin, bool value) {
    const std::lock_guard<lang::Object> guard(*this);
    rememberOutput(pin, value);
    Message message = {'W', pin, static_cast<unsigned char>(value ? '1' : '0'), 'w'};
    return writeToFTDI(message.data(), MESSAGE_LENGTH);
}

void FtdiService::rememberOutput(unsigned char pin, bool value) {
    if (pin > LAST_OUTPUT_PIN) {
        return;
    }
    // The shift by the pin number itself leaves port D no bit, so it stays low.
    const auto mask = static_cast<unsigned char>(1U << pin);
    std::atomic<unsigned char>& port =
        pin < PORT_C_PINS ? last_wrote_portC_Value : last_wrote_portD_Value;
    if (value) {
        port |= mask;
    } else {
        port &= static_cast<unsigned char>(~mask);
    }
}

void FtdiService::getPins(unsigned char* portA, unsigned char* portB, unsigned char* portC,
                          unsigned char* portD) {
    const std::lock_guard<lang::Object> guard(*pinLock);
    const auto copy = [](const auto& port, unsigned char* target) {
        if (target != nullptr) {
            *target = port;
        }
    };
    copy(last_known_portA_Value, portA);
    copy(last_known_portB_Value, portB);
    copy(last_wrote_portC_Value, portC);
    copy(last_wrote_portD_Value, portD);
}

std::string FtdiService::getFirmwareVersion() {
    const std::lock_guard<std::mutex> guard(firmwareVersionLock);
    return firmwareVersion;
}
