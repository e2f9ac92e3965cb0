#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/VirtualBoard.h"

/// The preload library has to be there before the program: start over with it.
int main(int argc, char** argv) {
    if (std::getenv("VIRTUAL_USB_DIRECTORY") == nullptr) {
        setenv("VIRTUAL_USB_DIRECTORY", "/nonexistent", 1);
        setenv("LD_PRELOAD", support::VirtualBoard::libraryPath().c_str(), 1);
        execv("/proc/self/exe", argv);
        std::perror("execv");
        return EXIT_FAILURE;
    }
    // Not for the boards that the tests start.
    unsetenv("LD_PRELOAD");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
