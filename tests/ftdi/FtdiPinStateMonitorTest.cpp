#include "ftdi/FtdiPinStateMonitor.h"

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <thread>

#include "FtdiTest.h"
#include "PinStateChangeListener.h"
#include "ftdi/FtdiCommandHandler.h"
#include "lang/exception/Exception.h"

using namespace std::string_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string monitorLine(const std::string& text) {
    return "debug FtdiPinStateMonitor: " + text;
}

const std::string STARTING = monitorLine("Starting FtdiPinStateMonitor");
const std::string RETRYING = monitorLine("FTDI device not found: retrying to connect in 5 seconds");
const std::string FIRST_READ_FAILED = monitorLine("Error while sending first read-request");
const std::string READY = monitorLine("Device is ready for actual use");
const std::string RECONNECTING = monitorLine("FTDI disconnected: preparing for reconnection");
const std::string STOPPED = "error FtdiPinStateMonitor: FTDI Pin Monitor Stopped....";

/// Tells every call in the journal and answers with what was laid out for it; a call that nothing
/// was laid out for stops the monitor.
class ScriptedService : public FtdiService {
public:
    void answer(const std::string& call, const std::deque<bool>& results) {
        answers_[call] = results;
    }

    void deinitializeLibFTDI() override { Journal::instance().add("deinitializeLibFTDI"); }
    bool readAndParseMessage() override {
        const bool taken = next("readAndParseMessage");
        if (!taken) {
            available = availableAfterReading;
        }
        return taken;
    }
    bool isDeviceAvailable() override { return available; }
    bool initWithReset() override { return available = next("initWithReset"); }
    bool initWithoutReset() override { return available = next("initWithoutReset"); }
    bool sendReadAndBlockTillResponse() override { return next("sendReadAndBlockTillResponse"); }
    bool versionRequestAndBlockTillResponse() override {
        return next("versionRequestAndBlockTillResponse");
    }

    std::function<void()> stop;
    bool available = false;
    bool availableAfterReading = false;

private:
    bool next(const std::string& call) {
        Journal::instance().add(call);
        std::deque<bool>& results = answers_[call];
        if (results.empty()) {
            stop();
            return false;
        }
        const bool result = results.front();
        results.pop_front();
        return result;
    }

    std::map<std::string, std::deque<bool>> answers_;
};

/// Its loop runs on the test's own thread; the one that start() creates ends at once.
class DrivenMonitor : public FtdiPinStateMonitor {
public:
    using FtdiPinStateMonitor::FtdiPinStateMonitor;
    void run() override { threadEnded_ = true; }

    void drive() {
        start();
        while (!threadEnded_) {
            std::this_thread::yield();
        }
        FtdiPinStateMonitor::run();
    }

private:
    std::atomic<bool> threadEnded_ = false;
};

class Listener : public PinStateChangeListener {
public:
    void pinStateChanged(std::string message) override {
        Journal::instance().add("told " + message);
        whenTold();
    }

    std::function<void()> whenTold = [] {};
};

const Steps PREPARED = {"versionRequestAndBlockTillResponse", "sendReadAndBlockTillResponse",
                        READY};
const Steps LOST = {RECONNECTING, "deinitializeLibFTDI"};
const Steps ENDED = {"deinitializeLibFTDI", STOPPED};

class FtdiMonitor : public FtdiTest {
protected:
    FtdiMonitor() {
        handler_.setFtdiService(&service_);
        prepare(monitor_);
    }

    void prepare(DrivenMonitor& target) {
        target.setFtdiService(&service_);
        service_.stop = [&] { target.stop(); };
    }

    void becomeReady(std::size_t times) {
        service_.answer("versionRequestAndBlockTillResponse", std::deque<bool>(times, true));
        service_.answer("sendReadAndBlockTillResponse", std::deque<bool>(times, true));
    }

    ScriptedService service_;
    FtdiCommandHandler handler_;
    DrivenMonitor monitor_{&handler_, false};
};

TEST_F(FtdiMonitor, IsBuiltUnpaused) {
    Listener listener;
    monitor_.setPinStateChangeListener(&listener);
    EXPECT_FALSE(monitor_.isPaused());
}

TEST_F(FtdiMonitor, StopsAtOnceWhenNotStarted) {
    monitor_.FtdiPinStateMonitor::run();
    EXPECT_EQ(journal_.steps(), (stepList(STARTING, STOPPED)));
}

TEST_F(FtdiMonitor, BuiltWithTheHandlerAloneConnectsWithoutReset) {
    DrivenMonitor plain(&handler_);
    prepare(plain);
    plain.drive();
    EXPECT_THAT(journal_.steps(), Contains("initWithoutReset"));
}

TEST_F(FtdiMonitor, TriesThreeTimesQuicklyAndThenSlowlyWithReset) {
    const auto quickly = [](int times, const std::string& way) {
        return repeated(times, {way, "sleep 1000000"});
    };
    const auto slowly = [](int times) {
        return repeated(times, {RETRYING, "sleep 5000000", "initWithReset"});
    };
    const Steps served = {"versionRequestAndBlockTillResponse", "sleep 500000"};
    struct Attempts {
        bool restart;
        std::deque<bool> withoutReset;
        std::deque<bool> withReset;
        Steps steps;
    };
    const Attempts rows[] = {
        {false, {}, {}, quickly(3, "initWithoutReset")},
        {false, {false, true}, {}, quickly(1, "initWithoutReset") + "initWithoutReset"s + served},
        {false, {false, false, false}, {false, false}, quickly(3, "initWithoutReset") + slowly(3)},
        {false,
         {false, false, false},
         {false, true},
         quickly(3, "initWithoutReset") + slowly(2) + served},
        {true, {}, {false, false, false, false}, quickly(3, "initWithReset") + slowly(2)},
    };
    for (const Attempts& row : rows) {
        journal_.clear();
        DrivenMonitor monitor(&handler_, row.restart);
        prepare(monitor);
        service_.answer("initWithoutReset", row.withoutReset);
        service_.answer("initWithReset", row.withReset);
        monitor.drive();
        EXPECT_EQ(journal_.steps(), stepList(STARTING) + row.steps + ENDED);
    }
}

TEST_F(FtdiMonitor, AsksForTheVersionEveryHalfSecond) {
    service_.answer("initWithoutReset", {true});
    service_.answer("versionRequestAndBlockTillResponse", {false, false});
    monitor_.drive();
    EXPECT_EQ(journal_.steps(),
              stepList(STARTING, "initWithoutReset") +
                  repeated(3, {"versionRequestAndBlockTillResponse", "sleep 500000"}) + ENDED);
}

TEST_F(FtdiMonitor, AsksForVersionAndInputsEveryHalfSecond) {
    service_.answer("initWithoutReset", {true});
    service_.answer("versionRequestAndBlockTillResponse", {true, true, true});
    service_.answer("sendReadAndBlockTillResponse", {false, false});
    monitor_.drive();
    const Steps attempt = {"versionRequestAndBlockTillResponse", "sendReadAndBlockTillResponse",
                           FIRST_READ_FAILED, "sleep 500000"};
    EXPECT_EQ(journal_.steps(),
              stepList(STARTING, "initWithoutReset") + repeated(3, attempt) + ENDED);
}

TEST_F(FtdiMonitor, GoesStraightBackWhenReadingEndsButTheDeviceStays) {
    service_.answer("initWithoutReset", {true});
    becomeReady(2);
    service_.answer("readAndParseMessage", {true, true, false});
    service_.availableAfterReading = true;
    monitor_.drive();
    EXPECT_EQ(journal_.steps(), stepList(STARTING, "initWithoutReset") + PREPARED +
                                    repeated(3, {"readAndParseMessage"}) + PREPARED +
                                    "readAndParseMessage"s + ENDED);
}

TEST_F(FtdiMonitor, ReconnectsWhenTheDeviceIsGoneBeforeItIsReady) {
    class Vanishing : public ScriptedService {
    public:
        bool sendReadAndBlockTillResponse() override {
            const bool sent = ScriptedService::sendReadAndBlockTillResponse();
            available = false;
            return sent;
        }
    } vanishing;
    vanishing.answer("initWithoutReset", {true});
    vanishing.answer("versionRequestAndBlockTillResponse", {true});
    vanishing.answer("sendReadAndBlockTillResponse", {false});
    vanishing.stop = [&] { monitor_.stop(); };
    monitor_.setFtdiService(&vanishing);
    monitor_.drive();
    EXPECT_EQ(journal_.steps(),
              stepList(STARTING, "initWithoutReset", "versionRequestAndBlockTillResponse",
                       "sendReadAndBlockTillResponse", FIRST_READ_FAILED, "sleep 500000") +
                  LOST + repeated(3, {"initWithoutReset", "sleep 1000000"}) + ENDED);
}

TEST_F(FtdiMonitor, ReconnectsWithResetAsLongAsItIsToldTo) {
    DrivenMonitor restarting(&handler_, true);
    prepare(restarting);
    service_.answer("initWithReset", {true, true});
    becomeReady(1);
    service_.answer("readAndParseMessage", {false});
    restarting.drive();
    EXPECT_EQ(journal_.steps(),
              stepList(STARTING, "initWithReset") + PREPARED + "readAndParseMessage"s + LOST +
                  stepList("initWithReset", "versionRequestAndBlockTillResponse", "sleep 500000") +
                  ENDED);
}

void tellJournal(void* argument) {
    Journal::instance().add("callback with " + *static_cast<std::string*>(argument));
}

TEST_F(FtdiMonitor, CallsBackBeforeItClosesTheLink) {
    std::string argument = "the argument";
    monitor_.setDeviceDisconnectionCallback(tellJournal, &argument);
    service_.answer("initWithoutReset", {true});
    becomeReady(1);
    service_.answer("readAndParseMessage", {false});
    monitor_.drive();
    EXPECT_EQ(journal_.steps(), stepList(STARTING, "initWithoutReset") + PREPARED +
                                    "readAndParseMessage"s + "callback with the argument"s + LOST +
                                    repeated(3, {"initWithoutReset", "sleep 1000000"}) +
                                    "callback with the argument"s + ENDED);
}

TEST_F(FtdiMonitor, KeepsReadingWhilePaused) {
    service_.answer("initWithoutReset", {true});
    becomeReady(1);
    service_.answer("readAndParseMessage", {true, true});
    monitor_.start();
    monitor_.pause();
    journal_.clear();
    monitor_.drive();
    EXPECT_EQ(journal_.stepsWith("readAndParseMessage"), repeated(3, {"readAndParseMessage"}));
}

/// The loop on the real link, with the board's bytes beneath it.
class FtdiMonitorOnLink : public FtdiTest {
protected:
    FtdiMonitorOnLink() {
        handler_.setFtdiService(&service_);
        monitor_.setFtdiService(&service_);
        monitor_.setPinStateChangeListener(&listener_);
    }

    void startUp(const std::string& inputs) {
        board_.receive("V\1\1vV\1\1v");
        board_.receive("R" + inputs + "r");
    }

    void loseDevice() { board_.receive(FtdiStandIn::Read::Kind::Failed, 12); }

    /// When the stream ends, so does the loop.
    void driveToTheEnd() {
        board_.onCall("ftdi_read_data_submit", [&] {
            if (board_.unread() == 0) {
                monitor_.stop();
            }
        });
        monitor_.drive();
    }

    Listener listener_;
    FtdiService service_;
    FtdiCommandHandler handler_;
    DrivenMonitor monitor_{&handler_, false};
};

TEST_F(FtdiMonitorOnLink, ReportsWhatChangedSinceThePreviousMessage) {
    startUp("\0\0"s);
    board_.receive("I\xFF\xFFiI\xFE\xFFiI\xFE\xFFiI\xFC\x7Fi");
    driveToTheEnd();
    EXPECT_EQ(
        journal_.stepsWith("told"),
        (stepList("told U1fffe000|1fffe000U", "told U2000|1fffc000U", "told U10004000|fff8000U")));
}

TEST_F(FtdiMonitorOnLink, ReportsNothingForAReadReplyWithoutHighInputs) {
    startUp("\0\0"s);
    board_.receive("R\1\1r");
    driveToTheEnd();
    EXPECT_THAT(journal_.stepsWith("told"), IsEmpty());
}

TEST_F(FtdiMonitorOnLink, ReportsEveryHighInputWithTheFirstMessageOfEachConnection) {
    startUp("\1\0"s);
    board_.receive("I\3\0i"s);
    loseDevice();
    startUp("\3\0"s);
    board_.receive("I\7\0i"s);
    driveToTheEnd();
    EXPECT_EQ(journal_.stepsWith("told"), (stepList("told U6000|6000U", "told Ue000|e000U")));
    EXPECT_EQ(journal_.stepsWith("debug FtdiPinStateMonitor"),
              (stepList(STARTING, READY, RECONNECTING, READY)));
}

TEST_F(FtdiMonitorOnLink, LetsAnExceptionOfTheListenerOut) {
    startUp("\1\0"s);
    board_.receive("I\3\0i"s);
    listener_.whenTold = [] { throw lang::Exception("no more"); };
    EXPECT_THROW(monitor_.drive(), lang::Exception);
}

} // namespace
