#pragma once

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

    static FtdiStandIn& instance();

    /// Back to a silent board that has product id 0x6001 and accepts everything.
    void reset();

    /// From now on the library's contexts carry none of libusb.
    void hideUsbContext();

    void plugIn(int productId);
    void unplug();

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

    /// From now on the library has no text for any error.
    void loseErrorTexts();

    /// Called at each call of the function, after it is recorded and before it has an effect.
    void onCall(const std::string& function, std::function<void()> action);

    /// Collections of a transfer that had not completed: each would have been a busy loop.
    int prematureCollections();
    int waits();
    bool hasHeldRead();

    int init(ftdi_context& context);
    int open(const ftdi_context* context, int vendor, int product);
    int plain(const ftdi_context* context, const std::string& function,
              const std::string& arguments = "");
    int drain(const ftdi_context* context, unsigned char* buffer, int size);
    ftdi_transfer_control* submitWrite(ftdi_context* context, unsigned char* buffer, int size);
    ftdi_transfer_control* submitRead(ftdi_context* context, unsigned char* buffer, int size);
    int collect(ftdi_transfer_control* control);
    int handleEvents(libusb_context* context, const int* completed);
    const char* errorText(const ftdi_context* context);
    void askVersion();

    /// Whether the context was all zero when it was first initialised.
    bool sawZeroedContext();

private:
    struct Transfer;

    std::string remarkOn(const ftdi_context* context);
    void record(const ftdi_context* context, const std::string& function,
                const std::string& arguments = "");
    void record(const std::string& step, const std::string& function);
    int take(const std::string& function, int usual);
    int conclude(const std::string& call, int result);
    static void complete(Transfer& transfer);
    void provideUsbContext(ftdi_context& context) const;

    std::mutex guard_;
    std::condition_variable released_;
    int boardProduct_ = 0;
    bool releasing_ = false;
    bool zeroedContext_ = false;
    int premature_ = 0;
    int waitCount_ = 0;
    const ftdi_context* knownContext_ = nullptr;
    bool hasTexts_ = true;
    bool usbContextHidden_ = false;
    std::string trouble_;
    std::set<std::string> texts_; ///< kept, since callers hold pointers to them
    std::map<std::string, std::deque<int>> results_;
    std::map<std::string, std::function<void()>> actions_;
    std::deque<Read> reads_;
    std::deque<Leftover> drained_;
    Leftover lastLeftover_;
    std::deque<int> writes_;
    std::set<Transfer*> pending_;
};
