#pragma once

#include <chrono>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FtdiStandIn.h"
#include "Journal.h"
#include "ftdi/FtdiService.h"
#include "support/Eventually.h"

/// A silent board behind the library's stand-in, and an empty journal.
class FtdiTest : public testing::Test {
protected:
    FtdiTest();

    /// No transfer may ever be collected before it has completed: that is a busy loop.
    void TearDown() override;

    /// Has the service read a message, and clears the journal.
    void makeAvailable(FtdiService& service);

    /// Whether another thread's operation ends within `limit` while this one holds the monitor.
    static bool endsBeside(lang::Object& monitor, const std::function<void()>& operation,
                           std::chrono::milliseconds limit = support::PATIENCE);

    FtdiStandIn& board_ = FtdiStandIn::instance();
    Journal& journal_ = Journal::instance();
};

/// Stretches of the journal.
namespace steps {

Steps opening(int productId = 0x6001);
Steps nothingToFlush();
Steps closing();
Steps sent(const std::string& bytes);
Steps bytesRead(int count);

/// A line that quotes the library's own text.
Steps explained(const std::string& line);
Steps refusedWrite(const std::string& bytes);
Steps failedWrite(const std::string& bytes, int result);
Steps refusedRead();

/// What follows a failed read where messages are taken.
Steps readFailure(const std::string& call = "ftdi_transfer_data_done");

std::string debug(const std::string& text);
std::string error(const std::string& text);

inline const std::string WAITED = "libusb_handle_events_completed";
inline const std::string READ_REQUEST = "52 30 30 72";
inline const std::string VERSION_REQUEST = "56 30 30 76";
inline const std::string RESET_MESSAGE = "4B 00 00 6B";

/// A request before bytes 1, 5 and 9 of twelve.
Steps twelveBytesFor(const std::string& request);

} // namespace steps
