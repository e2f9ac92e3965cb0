#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <ftdi.h>

#include "lang/Object.h"

/// The USB link to the board, and the four-byte messages that travel over it. Nothing here throws:
/// failures are logged with the library's own text and become false results.
///
/// The object's own lock (the service lock) is held while connecting, disconnecting and writing a
/// pin. Inside it at most one of readLock, writeLock and pinLock is taken. A blocked read holds
/// readLock alone, so it never delays a write.
class FtdiService : public lang::Object {
public:
    /// Does not touch USB.
    FtdiService();

    /// Does not close the device: deinitializeLibFTDI() does.
    ~FtdiService() override;

private:
    /// Opens 0403:6001 or else 0403:6015 and sets the line speed. A failure closes nothing.
    virtual bool initializeLibFTDI();

    virtual bool writeToFTDI(unsigned char* buffer, int length);

    /// Waits without limit until `length` bytes have come or the device is gone.
    virtual bool blockingReadFromFtdi(unsigned char* buffer, int length);

public:
    /// "Unknown", or as the board told it: "v2.5".
    virtual std::string getFirmwareVersion();

    /// Closes the device; leaves the availability as it is.
    virtual void deinitializeLibFTDI();

    /// Takes bytes until a message has come, at most twelve; false when none did, and then the
    /// device counts as lost.
    virtual bool readAndParseMessage();

    /// Drives the board's output `pin`; remembers the level even when sending fails.
    virtual bool writePinToFTDI(unsigned char pin, bool value);

    /// Whether the device is believed usable; takes no lock.
    virtual bool isDeviceAvailable() { return deviceAvailable; }

    /// Copies the inputs (ports A and B) as last reported and the outputs (C and D) as last
    /// written. Null pointers are skipped.
    virtual void getPins(unsigned char* portA, unsigned char* portB, unsigned char* portC,
                         unsigned char* portD);

    /// Connects, makes the firmware restart, waits ten seconds and opens the device again, without
    /// closing it in between.
    virtual bool initWithReset();

    /// Connects to firmware that runs already; true also when it does not tell its version.
    virtual bool initWithoutReset();

    /// Asks for the inputs, three times within twelve bytes; keeps the availability up to date.
    virtual bool sendReadAndBlockTillResponse();

    /// Asks for the firmware version, likewise, but leaves the availability alone.
    virtual bool versionRequestAndBlockTillResponse();

    /// Takes over the inputs when the four bytes are an input change; false when they are not.
    virtual bool inputChanged(unsigned char* message);

private:
    using Message = std::array<unsigned char, 4>;

    bool openDevice();
    void giveUp();
    bool flush();
    bool sendResets();
    std::optional<Message> request(unsigned char first, unsigned char last,
                                   std::atomic<bool>& available);
    bool receiveInto(Message& buffer);
    void storeInputs(unsigned char portA, unsigned char portB);
    void storeFirmwareVersion(unsigned char majorNumber, unsigned char minorNumber);
    void rememberOutput(unsigned char pin, bool value);
    void waitFor(int& completed);
    const char* errorText();

    std::unique_ptr<lang::Object> readLock;
    std::unique_ptr<lang::Object> writeLock;
    std::unique_ptr<lang::Object> pinLock;
    ftdi_context ftdic;
    std::atomic<bool> deviceAvailable = false;
    int pidVersion = 0; ///< guarded by the service lock

    std::mutex firmwareVersionLock;
    std::string firmwareVersion = "Unknown";

    unsigned char last_known_portA_Value = 0;
    unsigned char last_known_portB_Value = 0;

    // Stored under the service lock and read under pinLock.
    std::atomic<unsigned char> last_wrote_portC_Value = 0;
    std::atomic<unsigned char> last_wrote_portD_Value = 0;
};
