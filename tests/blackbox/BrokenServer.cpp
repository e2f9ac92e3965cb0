#include <chrono>
#include <future>

#include <ftdi.h>
#include <unistd.h>

#include "GpioServer.h"
#include "lang/exception/Exception.h"

// A server that cannot be built, linked in the place of the real one: on port 0 at once, on others
// when the board's monitor is in the midst of a call, which never returns.

namespace {

std::promise<void> monitorCalls;

bool monitorRuns() {
    constexpr std::chrono::seconds PATIENCE(30);
    return monitorCalls.get_future().wait_for(PATIENCE) == std::future_status::ready;
}

} // namespace

extern "C" int ftdi_init(ftdi_context* /*context*/) {
    monitorCalls.set_value();
    while (true) {
        pause();
    }
}

GpioServer::GpioServer(int port) : portNumber(port) {
    if (port != 0 && !monitorRuns()) {
        throw lang::Exception("The monitor does not run");
    }
    throw lang::Exception("Broken");
}

GpioServer::~GpioServer() = default;
void GpioServer::setPinStateMonitor(AbstractPinStateMonitor* /*monitor*/) {}
void GpioServer::launchServer() {}
void GpioServer::connectionEnded(io::Connection* /*connection*/) {}
void GpioServer::inputPinListeningInterestUpdated(bool /*interested*/) {}
void GpioServer::pinStateChanged(std::string /*message*/) {}
