// What the board sends, byte by byte and with failures in between, through the three operations
// that receive; results, remembered state and requests compared with the model's.

#include <memory>

#include "Check.h"
#include "Input.h"
#include "StreamModel.h"
#include "ftdi/FtdiService.h"

namespace {

struct Link {
    std::unique_ptr<fuzz::Events> events;
    std::string sent;
    const char* error = nullptr;
    ftdi_transfer_control transfer{};
    int result = 0;
};

Link usbLink;

ftdi_transfer_control* complete(int result) {
    usbLink.transfer.completed = 1;
    usbLink.result = result;
    return &usbLink.transfer;
}

} // namespace

extern "C" {

ftdi_transfer_control* ftdi_read_data_submit(ftdi_context* /*ftdi*/, unsigned char* buffer,
                                             int size) {
    fuzz::expectEqual("bytes asked for", 1, size);
    const fuzz::Read read = usbLink.events->read();
    switch (read.kind) {
    case fuzz::Read::REFUSED:
        usbLink.error = "refused";
        return nullptr;
    case fuzz::Read::FAILED:
        usbLink.error = "failed";
        return complete(-1);
    case fuzz::Read::NOTHING:
        return complete(0);
    case fuzz::Read::BYTE:
        break;
    }
    *buffer = read.value;
    return complete(1);
}

ftdi_transfer_control* ftdi_write_data_submit(ftdi_context* /*ftdi*/, unsigned char* buffer,
                                              int size) {
    const fuzz::Write outcome = usbLink.events->write();
    if (outcome == fuzz::Write::Refused) {
        usbLink.error = "refused";
        return nullptr;
    }
    usbLink.sent.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(size));
    return complete(outcome == fuzz::Write::Failed ? -1 : size);
}

int ftdi_transfer_data_done(ftdi_transfer_control* transfer) {
    fuzz::expectTrue("a transfer that was never submitted", transfer == &usbLink.transfer);
    return usbLink.result;
}

const char* ftdi_get_error_string(ftdi_context* /*ftdi*/) {
    return usbLink.error;
}
}

namespace {

void compareState(FtdiService& service, const fuzz::StreamModel& model) {
    unsigned char portA = 0;
    unsigned char portB = 0;
    service.getPins(&portA, &portB, nullptr, nullptr);
    fuzz::expectEqual("port A", model.portA, portA);
    fuzz::expectEqual("port B", model.portB, portB);
    fuzz::expectEqual("firmware version", model.firmwareVersion, service.getFirmwareVersion());
    fuzz::expectEqual("availability", model.available ? 1 : 0, service.isDeviceAvailable() ? 1 : 0);
    fuzz::expectEqual("requests", model.sent, usbLink.sent);
}

/// Any other letter stands for a plain read of the next message.
bool perform(FtdiService& service, char operation) {
    switch (operation) {
    case 'R':
        return service.sendReadAndBlockTillResponse();
    case 'V':
        return service.versionRequestAndBlockTillResponse();
    default:
        return service.readAndParseMessage();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t MOST_OPERATIONS = 16;
    fuzz::Input input(data, size);
    const std::string operations = input.upTo('\n').substr(0, MOST_OPERATIONS);
    const std::string stream = input.rest();

    usbLink = Link{};
    usbLink.events = std::make_unique<fuzz::Events>(stream);
    FtdiService service;
    fuzz::StreamModel model(stream);
    for (const char operation : operations) {
        const bool expected = model.perform(operation);
        fuzz::expectEqual(std::string("result of ") + operation, expected ? 1 : 0,
                          perform(service, operation) ? 1 : 0);
        compareState(service, model);
        if (model.isAtEnd()) {
            break;
        }
    }
    return 0;
}
