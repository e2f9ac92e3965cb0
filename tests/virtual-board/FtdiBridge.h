#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <ftdi.h>

/// A program's use of the bridge through libftdi1, as short as tests want it. One thread at a time,
/// except that transfers may be finished by several threads.
class FtdiBridge {
public:
    static constexpr int NOT_FINISHED = -1000;

    FtdiBridge();
    FtdiBridge(const FtdiBridge&) = delete;
    FtdiBridge& operator=(const FtdiBridge&) = delete;
    ~FtdiBridge();

    int open(int product);

    /// Opens again until it succeeds: hot-plug notices take a moment.
    int openWhenThere(int product);
    void close();
    int purge();

    ftdi_transfer_control* submitRead(unsigned char* buffer, int length);
    ftdi_transfer_control* submitWrite(const std::string& bytes);

    /// Waits for a transfer without spinning and returns its result, or NOT_FINISHED.
    int finish(ftdi_transfer_control* transfer,
               std::chrono::milliseconds timeout = std::chrono::seconds(20));

    /// Runs event handling for a while; returns whether the transfer is done.
    bool isDoneWithin(ftdi_transfer_control* transfer, std::chrono::milliseconds time);

    int write(const std::string& bytes) { return finish(submitWrite(bytes)); }

    /// Reads exactly `length` bytes; shorter when a read fails.
    std::string read(int length);

    ftdi_context* get() { return &context_; }

private:
    ftdi_context context_{};
    std::string written_;
};
