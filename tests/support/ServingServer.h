#pragma once

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "GpioServer.h"
#include "io/exception/ServerSocketException.h"
#include "support/Client.h"
#include "support/Eventually.h"
#include "support/Fakes.h"
#include "support/ProcessInfo.h"
#include "support/ReservedPort.h"

namespace support {

inline const std::string END_OF_TEST = "end of the test";

/// What launchServer() ends with.
inline std::string messageOfLaunch(GpioServer& server) {
    try {
        server.launchServer();
    } catch (io::ServerSocketException& problem) {
        return "socket: " + problem.getMessage();
    } catch (lang::Exception& problem) {
        return problem.getMessage();
    }
    return "returned";
}

/// A server on a thread of its own, inside a captured log, whose device and monitor the test
/// controls. It serves until its device is asked for once more after end() was called.
class ServingServer {
public:
    ServingServer() : server(port.number()) {
        server.setCommandHandler(device);
        server.setPinStateMonitor(monitor);
    }
    ServingServer(const ServingServer&) = delete;
    ServingServer& operator=(const ServingServer&) = delete;
    ~ServingServer() { end(); }

    void launch() {
        thread_ = std::thread([this] {
            launchResult_ = messageOfLaunch(server);
            ended_ = true;
        });
    }

    bool waitUntilListening() const {
        return eventually([this] { return listeningPort(self()) == port.number(); });
    }

    /// Returns why launchServer() has ended, once every thread of the server is gone.
    std::string end() {
        if (thread_.joinable()) {
            device->setAvailability([]() -> BOOL { throw lang::Exception(END_OF_TEST); });
            wakeAccept();
            thread_.join();
            // Clients that the test still holds would keep their handlers.
            EXPECT_TRUE(eventually([this] { return threadCount(self()) <= threadsBefore; }))
                << "a handler goes on";
            orderAfterTheLog();
        }
        return launchResult_;
    }

    bool hasEnded() const { return ended_; }

    /// Waits for launchServer() to end by itself.
    std::string waitForResult() {
        EXPECT_TRUE(eventually([this] { return ended_.load(); }));
        return end();
    }

    /// The callback is lent only once the server accepts, so the call is repeated until it closes
    /// the socket.
    void loseDevice() {
        device->setAvailable(false);
        EXPECT_TRUE(eventually([this] {
            monitor->callDeviceDisconnectionCallback();
            return listeningPort(self()) != port.number();
        }));
    }

    ReservedPort port;
    FakeDevice* device = new FakeDevice;
    FakeMonitor* monitor = new FakeMonitor(device, false);
    std::size_t threadsBefore = threadCount(self());
    GpioServer server;

private:
    /// A handler's last act is a line of log. Reading the captured log tells the thread sanitizer
    /// that what comes now comes after it.
    static void orderAfterTheLog() {
        char byte = 0;
        [[maybe_unused]] const ssize_t read = pread(STDOUT_FILENO, &byte, 1, 0);
    }

    /// The server may stop listening at any moment, so no attempt lasts.
    void wakeAccept() {
        constexpr std::chrono::milliseconds ATTEMPT(20);
        while (!ended_) {
            try {
                Client(port.number(), 0, ATTEMPT).waitForEnd(ATTEMPT);
            } catch (std::runtime_error&) {
                std::this_thread::sleep_for(ATTEMPT);
            }
        }
    }

    std::string launchResult_;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

} // namespace support
