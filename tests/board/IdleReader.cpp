#include <ftdi.h>
#include <libusb.h>

/// What waiting for a byte of the board costs with the libraries alone: opens it and waits.
int main() {
    ftdi_context context{};
    unsigned char byte = 0;
    if (ftdi_init(&context) < 0 || ftdi_usb_open(&context, 0x0403, 0x6015) < 0 ||
        ftdi_set_baudrate(&context, 115200) < 0) {
        return 1;
    }
    ftdi_transfer_control* const transfer = ftdi_read_data_submit(&context, &byte, 1);
    while (transfer != nullptr && transfer->completed == 0) {
        libusb_handle_events_completed(context.usb_ctx, &transfer->completed);
    }
    return 0;
}
