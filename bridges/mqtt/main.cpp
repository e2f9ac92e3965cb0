#include <csignal>

#include <sys/signalfd.h>
#include <sys/time.h>
#include <unistd.h>

#include "Bridge.h"
#include "CommandLine.h"
#include "Forget.h"
#include "Log.h"
#include "Program.h"

namespace {

/// Keeps the signals that end programs for whoever reads the descriptor; to be called before there
/// is a second thread. A broker that is gone must not end the program.
int takeSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t stops;
    sigemptyset(&stops);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        sigaddset(&stops, signal);
    }
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);
    return signalfd(-1, &stops, SFD_CLOEXEC | SFD_NONBLOCK);
}

int run(int argc, char** argv) {
    const auto settings = mqttbridge::parseCommandLine(argc, argv);
    if (!settings) {
        return bridge::DONE;
    }
    bridge::setLogName("gpio-mqtt[" + settings->id + "]");
    const mqttbridge::Timing timing = mqttbridge::Timing::fromEnvironment();
    const mqttbridge::Descriptor signals(takeSignals());
    if (settings->forget) {
        return mqttbridge::forget(*settings, timing, signals.get()) ? bridge::DONE : bridge::FAILED;
    }
    mqttbridge::Bridge(*settings, timing).run(signals.get());
    return bridge::DONE;
}

} // namespace

int main(int argc, char** argv) {
    return bridge::runProgram("gpio-mqtt", [&] { return run(argc, argv); });
}
