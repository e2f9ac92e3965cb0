#include "peers/BoardLink.h"

#include <algorithm>
#include <stdexcept>

#include <libusb.h>

BoardLink::BoardLink() : context_(ftdi_new()) {
    constexpr int VENDOR_ID = 0x0403;
    constexpr int PRODUCT_ID = 0x6015;
    constexpr int BAUD_RATE = 115200;
    if (context_ == nullptr || ftdi_usb_open(context_, VENDOR_ID, PRODUCT_ID) < 0 ||
        ftdi_set_baudrate(context_, BAUD_RATE) < 0) {
        throw std::runtime_error("no board");
    }
}

BoardLink::~BoardLink() {
    ftdi_free(context_);
}

void BoardLink::writePin(unsigned char pin, bool value) {
    std::array<unsigned char, 4> message = {'W', pin, static_cast<unsigned char>(value ? '1' : '0'),
                                            'w'};
    const int length = static_cast<int>(message.size());
    if (finish(ftdi_write_data_submit(context_, message.data(), length)) != length) {
        throw std::runtime_error("write failed");
    }
}

unsigned char BoardLink::readByte() {
    unsigned char byte = 0;
    if (finish(ftdi_read_data_submit(context_, &byte, 1)) != 1) {
        throw std::runtime_error("read failed");
    }
    return byte;
}

unsigned char BoardLink::readByteWithLibraryWait() {
    unsigned char byte = 0;
    ftdi_transfer_control* const transfer = ftdi_read_data_submit(context_, &byte, 1);
    if (transfer == nullptr || ftdi_transfer_data_done(transfer) != 1) {
        throw std::runtime_error("read failed");
    }
    return byte;
}

void BoardLink::awaitInputChange() {
    do {
        std::rotate(window_.begin(), window_.begin() + 1, window_.end());
        window_.back() = readByte();
    } while (window_.front() != 'I' || window_.back() != 'i');
}

/// The library's own wait spins; sleeping first is what any careful program does.
int BoardLink::finish(ftdi_transfer_control* transfer) {
    if (transfer == nullptr) {
        return -1;
    }
    while (__atomic_load_n(&transfer->completed, __ATOMIC_ACQUIRE) == 0) {
        libusb_handle_events_completed(context_->usb_ctx, &transfer->completed);
    }
    return ftdi_transfer_data_done(transfer);
}
