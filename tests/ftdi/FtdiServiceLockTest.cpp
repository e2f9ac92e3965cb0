#include <array>
#include <functional>
#include <future>
#include <memory>

#include "FtdiTest.h"
#include "support/MonitorHold.h"
#include "support/Scale.h"

using namespace std::chrono_literals;

namespace {

using MonitorMember = std::unique_ptr<lang::Object> FtdiService::*;
using Initialize = bool (FtdiService::*)();
using Write = bool (FtdiService::*)(unsigned char*, int);

// An explicit instantiation may name private members, and hands them out through a friend.
struct ReadLock {
    friend MonitorMember reveal(ReadLock tag);
};
struct WriteLock {
    friend MonitorMember reveal(WriteLock tag);
};
struct PinLock {
    friend MonitorMember reveal(PinLock tag);
};
struct InitializeLibFtdi {
    friend Initialize reveal(InitializeLibFtdi tag);
};
struct WriteToFtdi {
    friend Write reveal(WriteToFtdi tag);
};
template <typename Tag, auto Member> struct Reveal {
    friend decltype(Member) reveal(Tag /*tag*/) { return Member; }
};
template struct Reveal<ReadLock, &FtdiService::readLock>;
template struct Reveal<WriteLock, &FtdiService::writeLock>;
template struct Reveal<PinLock, &FtdiService::pinLock>;
template struct Reveal<InitializeLibFtdi, &FtdiService::initializeLibFTDI>;
template struct Reveal<WriteToFtdi, &FtdiService::writeToFTDI>;

/// Threads of one operation are kept apart when each of them holds the lock at the calls in
/// question, so it is the holding that is tested, not that somebody waits.
class FtdiServiceLock : public FtdiTest {
protected:
    /// At each later call of the function, looks whether the monitor is held.
    void lookAt(const std::string& function, lang::Object& monitor) {
        board_.onCall(function, [&] { held_.push_back(support::isHeld(monitor)); });
    }

    lang::Object& readLock() { return *(service_.*reveal(ReadLock())); }
    lang::Object& writeLock() { return *(service_.*reveal(WriteLock())); }
    lang::Object& pinLock() { return *(service_.*reveal(PinLock())); }

    FtdiService service_;
    std::vector<bool> held_;
};

const std::string EVERY_CALL[] = {
    "ftdi_init",         "ftdi_set_interface",       "ftdi_usb_open",  "ftdi_usb_purge_buffers",
    "ftdi_set_baudrate", "ftdi_get_library_version", "ftdi_read_data", "ftdi_write_data_submit"};

TEST_F(FtdiServiceLock, IsHeldAtEveryCallOfAConnectWithoutReset) {
    for (const std::string& function : EVERY_CALL) {
        lookAt(function, service_);
    }
    board_.receive("V\1\2v");
    EXPECT_TRUE(service_.initWithoutReset());
    EXPECT_EQ(held_, std::vector<bool>(8, true));
}

TEST_F(FtdiServiceLock, IsHeldAtEveryCallOfAConnectWithReset) {
    board_.product = 0x6015;
    for (const std::string& function : EVERY_CALL) {
        lookAt(function, service_);
    }
    EXPECT_TRUE(service_.initWithReset());
    EXPECT_EQ(held_, std::vector<bool>(2 * 7 + 2, true));
}

TEST_F(FtdiServiceLock, IsTakenByTheInitialisationItself) {
    lookAt("ftdi_init", service_);
    lookAt("ftdi_set_baudrate", service_);
    EXPECT_TRUE((service_.*reveal(InitializeLibFtdi()))());
    EXPECT_EQ(held_, std::vector<bool>(2, true));
}

TEST_F(FtdiServiceLock, IsHeldWhileClosing) {
    lookAt("ftdi_usb_close", service_);
    lookAt("ftdi_deinit", service_);
    service_.deinitializeLibFTDI();
    EXPECT_EQ(held_, std::vector<bool>(2, true));
}

TEST_F(FtdiServiceLock, IsHeldWhileAPinIsWritten) {
    lookAt("ftdi_write_data_submit", service_);
    lookAt("ftdi_transfer_data_done", service_);
    service_.writePinToFTDI(0, true);
    EXPECT_EQ(held_, std::vector<bool>(2, true));
}

TEST_F(FtdiServiceLock, IsGivenBackByEveryOperationThatTakesIt) {
    board_.product = 0x6015;
    service_.initWithReset();
    service_.deinitializeLibFTDI();
    service_.initWithoutReset();
    service_.writePinToFTDI(0, true);
    auto writing = std::async(std::launch::async, [&] { return service_.writePinToFTDI(1, true); });
    EXPECT_EQ(writing.wait_for(support::PATIENCE), std::future_status::ready);
}

TEST_F(FtdiServiceLock, OfWritesIsHeldFromTheSubmissionToTheResult) {
    lookAt("ftdi_write_data_submit", writeLock());
    lookAt("libusb_handle_events_completed", writeLock());
    lookAt("ftdi_transfer_data_done", writeLock());
    board_.finishNextWriteWith(-1);
    service_.writePinToFTDI(0, true);
    EXPECT_EQ(held_, std::vector<bool>(3, true));
}

TEST_F(FtdiServiceLock, OfReadsIsHeldFromTheSubmissionToTheResult) {
    lookAt("ftdi_read_data_submit", readLock());
    lookAt("libusb_handle_events_completed", readLock());
    lookAt("ftdi_transfer_data_done", readLock());
    board_.receive("I\1\2i");
    service_.readAndParseMessage();
    EXPECT_EQ(held_, std::vector<bool>(4 * 3, true));
}

TEST_F(FtdiServiceLock, OfPinsIsTakenToReadOrStoreThem) {
    std::array<unsigned char, 4> bytes = {'I', 1, 2, 'i'};
    board_.receive("R\1\2r");
    const std::function<void()> operations[] = {
        [&] { service_.inputChanged(bytes.data()); },
        [&] { service_.sendReadAndBlockTillResponse(); },
        [&] { service_.getPins(&bytes[0], &bytes[1], &bytes[2], &bytes[3]); }};
    for (const auto& operation : operations) {
        EXPECT_FALSE(endsBeside(pinLock(), operation, 50ms));
    }
}

TEST_F(FtdiServiceLock, OfPinsKeepsTheInputsOfAMessageTogether) {
    constexpr int TIMES = support::rounds(20000, 2000);
    auto storing = std::async(std::launch::async, [&] {
        for (int time = 0; time < TIMES; ++time) {
            const auto level = static_cast<unsigned char>(time);
            std::array<unsigned char, 4> message = {'I', level, level, 'i'};
            service_.inputChanged(message.data());
        }
    });
    int torn = 0;
    while (storing.wait_for(0s) != std::future_status::ready) {
        std::array<unsigned char, 2> inputs{};
        service_.getPins(&inputs[0], &inputs[1], nullptr, nullptr);
        torn += inputs[0] == inputs[1] ? 0 : 1;
    }
    EXPECT_EQ(torn, 0);
}

TEST_F(FtdiServiceLock, OfPinsIsLeftAloneByAnythingElse) {
    std::array<unsigned char, 4> message = {'V', 1, 2, 'v'};
    EXPECT_TRUE(endsBeside(pinLock(), [&] {
        service_.inputChanged(message.data());
        service_.isDeviceAvailable();
        service_.getFirmwareVersion();
        service_.writePinToFTDI(0, true);
    }));
}

/// The product only ever sends four bytes, but the primitive takes any number.
TEST_F(FtdiServiceLock, OfWritesLetsAnyLengthPassAndTellsNoBytesOfIt) {
    std::array<unsigned char, 2> bytes = {'O', 'K'};
    EXPECT_TRUE((service_.*reveal(WriteToFtdi()))(bytes.data(), 2));
    EXPECT_EQ(journal_.steps(), steps::sent("4F 4B") + steps::debug("sent message to FTDI-chip"));
}

} // namespace
