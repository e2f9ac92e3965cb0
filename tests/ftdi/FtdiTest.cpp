#include "FtdiTest.h"

#include <future>
#include <mutex>

FtdiTest::FtdiTest() {
    board_.reset();
    journal_.clear();
}

void FtdiTest::TearDown() {
    EXPECT_EQ(board_.prematureCollections, 0);
}

void FtdiTest::makeAvailable(FtdiService& service) {
    board_.receive("R\1\1r");
    ASSERT_TRUE(service.readAndParseMessage());
    ASSERT_TRUE(service.isDeviceAvailable());
    journal_.clear();
}

bool FtdiTest::endsBeside(lang::Object& monitor, const std::function<void()>& operation,
                          std::chrono::milliseconds limit) {
    std::unique_lock<lang::Object> held(monitor);
    std::promise<void> begun;
    const auto other = std::async(std::launch::async, [&] {
        begun.set_value();
        operation();
    });
    begun.get_future().wait();
    const bool ended = other.wait_for(limit) == std::future_status::ready;
    held.unlock();
    other.wait();
    return ended;
}

namespace steps {

Steps opening(int productId) {
    Steps tries = {"ftdi_init", "ftdi_set_interface 0", "ftdi_usb_open 0403:6001"};
    if (productId == 0x6015) {
        tries.emplace_back("ftdi_usb_open 0403:6015");
    }
    return std::move(tries) + Steps{"ftdi_usb_purge_buffers", "ftdi_set_baudrate 115200",
                                    debug("Succesfully initialized libftdi & opened device"),
                                    "ftdi_get_library_version",
                                    debug("FTDI driver version: 7.8.9")};
}

Steps nothingToFlush() {
    return {"ftdi_read_data 4", debug("flushed 0 bytes")};
}

Steps closing() {
    return {"ftdi_usb_close", "ftdi_deinit"};
}

Steps sent(const std::string& bytes) {
    return {"ftdi_write_data_submit " + bytes, WAITED, "ftdi_transfer_data_done"};
}

Steps bytesRead(int count) {
    return repeated(count, {debug("Submitting read"), "ftdi_read_data_submit 1", WAITED,
                            "ftdi_transfer_data_done"});
}

std::string debug(const std::string& text) {
    return "debug FtdiService: " + text;
}

std::string error(const std::string& text) {
    return "error FtdiService: " + text;
}

Steps explained(const std::string& line) {
    return {"ftdi_get_error_string", line};
}

Steps refusedWrite(const std::string& bytes) {
    return Steps{"ftdi_write_data_submit " + bytes} +
           explained(error("writing to ftdi failed: (trouble in ftdi_write_data_submit)"));
}

Steps failedWrite(const std::string& bytes, int result) {
    return sent(bytes) + explained(error("unable to write: " + std::to_string(result) +
                                         " (trouble in ftdi_transfer_data_done)"));
}

Steps refusedRead() {
    return Steps{debug("Submitting read"), "ftdi_read_data_submit 1"} +
           explained(debug("Error while submitting transfer: trouble in ftdi_read_data_submit"));
}

Steps readFailure(const std::string& call) {
    return explained(
        error("Error while starting read from ftdi device: (trouble in " + call + ")"));
}

Steps twelveBytesFor(const std::string& request) {
    return repeated(3, sent(request) + bytesRead(4));
}

} // namespace steps
