#include <csignal>
#include <thread>

#include <gtest/gtest.h>

// A server inside a test writes to clients that may have gone.
int main(int argc, char** argv) {
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    testing::InitGoogleTest(&argc, argv);
    // A sanitizer starts its own thread with the first one: it belongs to every count's base line.
    std::thread([] {}).join();
    return RUN_ALL_TESTS();
}
