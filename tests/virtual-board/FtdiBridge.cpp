#include "FtdiBridge.h"

#include <libusb.h>

#include "support/Eventually.h"

namespace {

constexpr int VENDOR = 0x0403;

timeval toTimeval(std::chrono::microseconds time) {
    constexpr long MICROSECONDS = 1'000'000;
    return {static_cast<time_t>(time.count() / MICROSECONDS),
            static_cast<suseconds_t>(time.count() % MICROSECONDS)};
}

} // namespace

FtdiBridge::FtdiBridge() {
    ftdi_init(&context_);
}

FtdiBridge::~FtdiBridge() {
    ftdi_usb_close(&context_);
    ftdi_deinit(&context_);
}

int FtdiBridge::open(int product) {
    return ftdi_usb_open(&context_, VENDOR, product);
}

int FtdiBridge::openWhenThere(int product) {
    int result = 0;
    support::eventually([&] {
        result = open(product);
        return result >= 0;
    });
    return result;
}

void FtdiBridge::close() {
    ftdi_usb_close(&context_);
}

int FtdiBridge::purge() {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return ftdi_usb_purge_buffers(&context_);
#pragma GCC diagnostic pop
}

ftdi_transfer_control* FtdiBridge::submitRead(unsigned char* buffer, int length) {
    return ftdi_read_data_submit(&context_, buffer, length);
}

ftdi_transfer_control* FtdiBridge::submitWrite(const std::string& bytes) {
    written_ = bytes;
    return ftdi_write_data_submit(&context_, reinterpret_cast<unsigned char*>(written_.data()),
                                  static_cast<int>(written_.size()));
}

bool FtdiBridge::isDoneWithin(ftdi_transfer_control* transfer, std::chrono::milliseconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    while (transfer->completed == 0) {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        timeval wait = toTimeval(left);
        libusb_handle_events_timeout_completed(context_.usb_ctx, &wait, &transfer->completed);
    }
    return true;
}

int FtdiBridge::finish(ftdi_transfer_control* transfer, std::chrono::milliseconds timeout) {
    if (transfer == nullptr) {
        return -1;
    }
    if (!isDoneWithin(transfer, timeout)) {
        return NOT_FINISHED;
    }
    // The flag is set under this lock, possibly by another thread that handles events: taking it
    // makes sure that thread is through with the transfer before it is freed here.
    libusb_lock_event_waiters(context_.usb_ctx);
    libusb_unlock_event_waiters(context_.usb_ctx);
    return ftdi_transfer_data_done(transfer);
}

std::string FtdiBridge::read(int length) {
    std::string result(static_cast<std::size_t>(length), '\0');
    const int count = finish(submitRead(reinterpret_cast<unsigned char*>(result.data()), length));
    result.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return result;
}
