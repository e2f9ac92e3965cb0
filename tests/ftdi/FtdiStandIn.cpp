#include "FtdiStandIn.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include <libusb.h>

#include "Journal.h"

using namespace std::string_literals;

struct FtdiStandIn::Transfer : ftdi_transfer_control {
    Read::Kind kind = Read::Kind::Byte;
    unsigned char value = 0;
    int result = 0;
};

namespace {

constexpr int NOT_FOUND = -3;
constexpr int REFUSED_SUBMISSION = -1000;

// The library hands out a pointer of libusb's here; nothing may look behind it.
int usbContextStandIn = 0;

libusb_context* usbContext() {
    return reinterpret_cast<libusb_context*>(&usbContextStandIn);
}

/// Takes the first of those that are laid out; `usual` when none is left.
template <typename Item> Item next(std::deque<Item>& queue, const Item& usual) {
    if (queue.empty()) {
        return usual;
    }
    const Item first = queue.front();
    queue.pop_front();
    return first;
}

std::string hexOf(const unsigned char* bytes, int size) {
    std::string text;
    for (int index = 0; index < size; ++index) {
        char digits[4];
        std::snprintf(digits, sizeof(digits), "%s%02X", index == 0 ? "" : " ", bytes[index]);
        text += digits;
    }
    return text;
}

} // namespace

FtdiStandIn& FtdiStandIn::instance() {
    static FtdiStandIn* const standIn = new FtdiStandIn;
    return *standIn;
}

void FtdiStandIn::reset() {
    const std::lock_guard<std::mutex> lock(guard_);
    product = FIRST_PRODUCT;
    hasErrorTexts = true;
    hasUsbContext = true;
    sawZeroedContext = false;
    prematureCollections = 0;
    waits = 0;
    plan_ = {};
}

void FtdiStandIn::answerWith(const std::string& function, const std::vector<int>& values) {
    const std::lock_guard<std::mutex> lock(guard_);
    std::deque<int>& queue = plan_.results[function];
    queue.insert(queue.end(), values.begin(), values.end());
}

void FtdiStandIn::receive(std::string_view bytes) {
    const std::lock_guard<std::mutex> lock(guard_);
    for (const char byte : bytes) {
        plan_.reads.push_back({Read::Kind::Byte, static_cast<unsigned char>(byte)});
    }
}

void FtdiStandIn::receive(Read::Kind kind, int times) {
    const std::lock_guard<std::mutex> lock(guard_);
    plan_.reads.insert(plan_.reads.end(), static_cast<std::size_t>(times), Read{kind, 'I'});
}

void FtdiStandIn::releaseHeldBytes() {
    const std::lock_guard<std::mutex> lock(guard_);
    plan_.releasing = true;
    released_.notify_all();
}

std::size_t FtdiStandIn::unread() {
    const std::lock_guard<std::mutex> lock(guard_);
    return plan_.reads.size();
}

void FtdiStandIn::leave(const std::vector<Leftover>& leftovers) {
    const std::lock_guard<std::mutex> lock(guard_);
    plan_.drained.insert(plan_.drained.end(), leftovers.begin(), leftovers.end());
}

void FtdiStandIn::keepLeaving(const Leftover& leftover) {
    const std::lock_guard<std::mutex> lock(guard_);
    plan_.lastLeftover = leftover;
}

void FtdiStandIn::refuseNextWrite() {
    finishNextWriteWith(REFUSED_SUBMISSION);
}

void FtdiStandIn::acceptWrites(int count) {
    for (int index = 0; index < count; ++index) {
        finishNextWriteWith(4);
    }
}

void FtdiStandIn::finishNextWriteWith(int result) {
    const std::lock_guard<std::mutex> lock(guard_);
    plan_.writes.push_back(result);
}

void FtdiStandIn::onCall(const std::string& function, std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(guard_);
    plan_.actions[function] = std::move(action);
}

bool FtdiStandIn::hasHeldRead() {
    const std::lock_guard<std::mutex> lock(guard_);
    return std::any_of(pending_.begin(), pending_.end(), [](const Transfer* transfer) {
        return transfer->kind == Read::Kind::HeldByte;
    });
}

/// A service has one context of the library, so any other is a mistake.
std::string FtdiStandIn::remarkOn(const ftdi_context* context) {
    const std::lock_guard<std::mutex> lock(guard_);
    if (plan_.knownContext == nullptr) {
        plan_.knownContext = context;
    }
    return context == nullptr ? " without a context"
                              : (context != plan_.knownContext ? " on another context" : "");
}

void FtdiStandIn::record(const ftdi_context* context, const std::string& function,
                         const std::string& arguments) {
    const std::string remark = remarkOn(context);
    record(arguments.empty() ? function + remark : function + " " + arguments + remark, function);
}

void FtdiStandIn::record(const std::string& step, const std::string& function) {
    Journal::instance().add(step);
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> lock(guard_);
        const auto found = plan_.actions.find(function);
        if (found != plan_.actions.end()) {
            action = found->second;
        }
    }
    if (action) {
        action();
    }
}

/// Call with the guard held.
int FtdiStandIn::take(const std::string& function, int usual) {
    return next(plan_.results[function], usual);
}

/// Call with the guard held. The text lasts until the next call, failed or not.
int FtdiStandIn::conclude(const std::string& call, int result) {
    plan_.trouble = result < 0 ? "trouble in " + call : "no trouble";
    return result;
}

int FtdiStandIn::plain(const ftdi_context* context, const std::string& function,
                       const std::string& arguments, int usual) {
    record(context, function, arguments);
    const std::lock_guard<std::mutex> lock(guard_);
    return conclude(arguments.empty() ? function : function + " " + arguments,
                    take(function, usual));
}

/// Also for a transfer that a test submits without connecting.
void FtdiStandIn::provideUsbContext(ftdi_context& context) const {
    context.usb_ctx = hasUsbContext ? usbContext() : nullptr;
}

int FtdiStandIn::drain(const ftdi_context* context, unsigned char* buffer, int size) {
    record(context, "ftdi_read_data", std::to_string(size));
    const std::lock_guard<std::mutex> lock(guard_);
    const Leftover leftover = next(plan_.drained, plan_.lastLeftover);
    std::memcpy(buffer, leftover.bytes.data(), leftover.bytes.size());
    return conclude("ftdi_read_data", leftover.result);
}

ftdi_transfer_control* FtdiStandIn::submitWrite(ftdi_context* context, unsigned char* buffer,
                                                int size) {
    record(context, "ftdi_write_data_submit", hexOf(buffer, size));
    const std::lock_guard<std::mutex> lock(guard_);
    const int result = next(plan_.writes, size);
    const auto kind = result == REFUSED_SUBMISSION ? Read::Kind::NoTransfer : Read::Kind::Empty;
    return submit("ftdi_write_data_submit", context, buffer, size, {kind, 0}, result);
}

ftdi_transfer_control* FtdiStandIn::submitRead(ftdi_context* context, unsigned char* buffer,
                                               int size) {
    record(context, "ftdi_read_data_submit", std::to_string(size));
    const std::lock_guard<std::mutex> lock(guard_);
    const Read read = next(plan_.reads, Read{});
    const int result = read.kind == Read::Kind::Failed  ? -1
                       : read.kind == Read::Kind::Empty ? 0
                                                        : 1;
    return submit("ftdi_read_data_submit", context, buffer, size, read, result);
}

/// Call with the guard held.
ftdi_transfer_control* FtdiStandIn::submit(const std::string& call, ftdi_context* context,
                                           unsigned char* buffer, int size, Read read, int result) {
    provideUsbContext(*context);
    if (conclude(call, read.kind == Read::Kind::NoTransfer ? -1 : 0) < 0) {
        return nullptr;
    }
    auto* const transfer = new Transfer;
    transfer->ftdi = context;
    transfer->buf = buffer;
    transfer->size = size;
    transfer->completed = 0;
    transfer->kind = read.kind;
    transfer->value = read.value;
    transfer->result = result;
    pending_.insert(transfer);
    if (read.kind == Read::Kind::ReadyByte) {
        complete(*transfer);
    }
    return transfer;
}

void FtdiStandIn::complete(Transfer& transfer) {
    const bool hasByte = transfer.kind == Read::Kind::Byte ||
                         transfer.kind == Read::Kind::ReadyByte ||
                         transfer.kind == Read::Kind::HeldByte;
    if (hasByte) {
        *transfer.buf = transfer.value;
    }
    __atomic_store_n(&transfer.completed, 1, __ATOMIC_RELEASE);
}

int FtdiStandIn::collect(ftdi_transfer_control* control) {
    record("ftdi_transfer_data_done", "ftdi_transfer_data_done");
    const std::lock_guard<std::mutex> lock(guard_);
    auto* const transfer = static_cast<Transfer*>(control);
    if (transfer->completed == 0) {
        ++prematureCollections;
        complete(*transfer);
    }
    const int result = transfer->result;
    pending_.erase(transfer);
    delete transfer;
    return conclude("ftdi_transfer_data_done", result);
}

int FtdiStandIn::handleEvents(libusb_context* context, const int* completed) {
    record("libusb_handle_events_completed", "libusb_handle_events_completed");
    std::unique_lock<std::mutex> lock(guard_);
    ++waits;
    const int result = take("libusb_handle_events_completed", LIBUSB_SUCCESS);
    const auto found =
        std::find_if(pending_.begin(), pending_.end(),
                     [=](const Transfer* transfer) { return &transfer->completed == completed; });
    if (found == pending_.end() || context != (*found)->ftdi->usb_ctx) {
        Journal::instance().add("waited for something that is not under way");
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    if (result != LIBUSB_SUCCESS) {
        return result;
    }
    Transfer& transfer = **found;
    if (transfer.kind == Read::Kind::HeldByte) {
        released_.wait(lock, [this] { return plan_.releasing; });
    }
    complete(transfer);
    return LIBUSB_SUCCESS;
}

const char* FtdiStandIn::errorText(const ftdi_context* context) {
    record(context, "ftdi_get_error_string");
    const std::lock_guard<std::mutex> lock(guard_);
    return hasErrorTexts ? texts_.insert(plan_.trouble).first->c_str() : nullptr;
}

extern "C" {

int ftdi_init(ftdi_context* context) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(context);
    if (std::all_of(bytes, bytes + sizeof(*context),
                    [](unsigned char byte) { return byte == 0; })) {
        FtdiStandIn::instance().sawZeroedContext = true;
    }
    FtdiStandIn::instance().provideUsbContext(*context);
    return FtdiStandIn::instance().plain(context, "ftdi_init");
}

int ftdi_set_interface(ftdi_context* context, ftdi_interface interface) {
    return FtdiStandIn::instance().plain(context, "ftdi_set_interface", std::to_string(interface));
}

int ftdi_usb_open(ftdi_context* context, int vendor, int product) {
    char ids[16];
    std::snprintf(ids, sizeof(ids), "%04X:%04X", static_cast<unsigned>(vendor),
                  static_cast<unsigned>(product));
    const bool found = product == FtdiStandIn::instance().product;
    return FtdiStandIn::instance().plain(context, "ftdi_usb_open", ids, found ? 0 : NOT_FOUND);
}

int ftdi_usb_purge_buffers(ftdi_context* context) {
    return FtdiStandIn::instance().plain(context, "ftdi_usb_purge_buffers");
}

int ftdi_set_baudrate(ftdi_context* context, int baudrate) {
    return FtdiStandIn::instance().plain(context, "ftdi_set_baudrate", std::to_string(baudrate));
}

int ftdi_read_data(ftdi_context* context, unsigned char* buffer, int size) {
    return FtdiStandIn::instance().drain(context, buffer, size);
}

ftdi_transfer_control* ftdi_write_data_submit(ftdi_context* context, unsigned char* buffer,
                                              int size) {
    return FtdiStandIn::instance().submitWrite(context, buffer, size);
}

ftdi_transfer_control* ftdi_read_data_submit(ftdi_context* context, unsigned char* buffer,
                                             int size) {
    return FtdiStandIn::instance().submitRead(context, buffer, size);
}

int ftdi_transfer_data_done(ftdi_transfer_control* transfer) {
    return FtdiStandIn::instance().collect(transfer);
}

int ftdi_usb_close(ftdi_context* context) {
    return FtdiStandIn::instance().plain(context, "ftdi_usb_close");
}

void ftdi_deinit(ftdi_context* context) {
    FtdiStandIn::instance().plain(context, "ftdi_deinit");
}

const char* ftdi_get_error_string(ftdi_context* context) {
    return FtdiStandIn::instance().errorText(context);
}

ftdi_version_info ftdi_get_library_version() {
    FtdiStandIn::instance().record("ftdi_get_library_version", "ftdi_get_library_version");
    return {7, 8, 9, "7.8.9", "stand-in"};
}

int LIBUSB_CALL libusb_handle_events_completed(libusb_context* context, int* completed) {
    return FtdiStandIn::instance().handleEvents(context, completed);
}
}
