#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "interposed/SystemCalls.h"
#include "io/ServerSocket.h"
#include "io/exception/ServerSocketException.h"

TEST(SocketCreation, FailureNamesThePort) {
    interposed::socketError = EMFILE;
    std::string problem = "nothing was thrown";
    try {
        const io::ServerSocket socket(5000, 3);
    } catch (io::ServerSocketException& failure) {
        problem = failure.getMessage();
    }
    interposed::socketError = 0;
    EXPECT_EQ(problem, "Failed to create ServerSocket on port 5000");
}
