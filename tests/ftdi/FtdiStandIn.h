#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <ftdi.h>

/// Takes the place of the USB library in the test executable: every call goes into the Journal
/// with its arguments, and with a remark when its context is not the one of the first call, and
/// gets the result that the test has laid out. The error text names the call before it, when that
/// failed: "trouble in ftdi_init", "trouble in ftdi_usb_open 0403:6015", or else "no trouble".
class FtdiStandIn {
public:
    /// How one read of the byte stream ends.
    struct Read {
        enum class Kind {
            Byte,      ///< arrives while the caller waits
            ReadyByte, ///< is there at submission, left over from a packet
            HeldByte,  ///< arrives when released
            Empty,     ///< completes with no byte
            Failed,    ///< completes with -1
            NoTransfer ///< cannot even be submitted
        };
        Kind kind = Kind::Empty;
        unsigned char value = 0;
    };

    /// One result of the read that drains the chip.
    struct Leftover {
        int result = 0;
        std::string bytes;
    };

    static constexpr int FIRST_PRODUCT = 0x6001;

    static FtdiStandIn& instance();

    /// Back to a silent board that has product id 0x6001 and accepts everything.
    void reset();

    /// Of the board that is plugged in; 0 for none.
    std::atomic<int> product = FIRST_PRODUCT;

    /// Whether the library has a text for each error.
    std::atomic<bool> hasErrorTexts = true;

    /// Whether the library's contexts carry one of libusb.
    std::atomic<bool> hasUsbContext = true;

    /// Whether a context was all zero when it was initialised.
    std::atomic<bool> sawZeroedContext = false;

    /// Collections of a transfer that had not completed: each would have been a busy loop.
    std::atomic<int> prematureCollections = 0;
    std::atomic<int> waits = 0;

    /// The next results of a function that returns a plain number, before its usual one.
    void answerWith(const std::string& function, const std::vector<int>& results);

    void receive(std::string_view bytes);
    void receive(Read::Kind kind, int times = 1);
    void releaseHeldBytes();

    /// Bytes of the stream and failures that nobody has read yet.
    std::size_t unread();

    void leave(const std::vector<Leftover>& leftovers);

    /// What every drain returns once the leftovers are used up; 0 bytes unless set.
    void keepLeaving(const Leftover& leftover);

    void refuseNextWrite();
    void acceptWrites(int count);
    void finishNextWriteWith(int result);

    /// Called at each call of the function, after it is recorded and before it has an effect.
    void onCall(const std::string& function, std::function<void()> action);

    bool hasHeldRead();

    // What the library's functions do.
    void record(const std::string& step, const std::string& function);
    void provideUsbContext(ftdi_context& context) const;
    int plain(const ftdi_context* context, const std::string& function,
              const std::string& arguments = "", int usual = 0);
    int drain(const ftdi_context* context, unsigned char* buffer, int size);
    ftdi_transfer_control* submitWrite(ftdi_context* context, unsigned char* buffer, int size);
    ftdi_transfer_control* submitRead(ftdi_context* context, unsigned char* buffer, int size);
    int collect(ftdi_transfer_control* control);
    int handleEvents(libusb_context* context, const int* completed);
    const char* errorText(const ftdi_context* context);

private:
    struct Transfer;

    std::string remarkOn(const ftdi_context* context);
    void record(const ftdi_context* context, const std::string& function,
                const std::string& arguments = "");
    int take(const std::string& function, int usual);
    int conclude(const std::string& call, int result);
    ftdi_transfer_control* submit(const std::string& call, ftdi_context* context,
                                  unsigned char* buffer, int size, Read read, int result);
    static void complete(Transfer& transfer);

    /// What a test has laid out, and how far it has come.
    struct Plan {
        std::map<std::string, std::deque<int>> results;
        std::map<std::string, std::function<void()>> actions;
        std::deque<Read> reads;
        bool releasing = false;
        std::deque<Leftover> drained;
        Leftover lastLeftover;
        std::deque<int> writes;
        std::string trouble = "no trouble";
        const ftdi_context* knownContext = nullptr;
    };

    std::mutex guard_;
    std::condition_variable released_;
    Plan plan_;
    std::set<std::string> texts_; ///< kept, since callers hold pointers to them
    std::set<Transfer*> pending_;
};
