#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include "support/Client.h"
#include "support/Descriptor.h"
#include "support/ServerProcess.h"

using namespace std::chrono_literals;
using support::Descriptor;
using support::ServerProcess;

namespace {

constexpr const char* SERVER_ADDRESS = "10.77.0.1";

// What is promised for a host that vanishes.
constexpr auto REAP_LIMIT = 120s;

Descriptor currentNamespace() {
    return Descriptor(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
}

/// Runs one of the commands of this file.
void runCommand(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command; // NOLINT(cert-env33-c)
}

/// Two network namespaces joined by one cable, one for the server and one for its client. The
/// calling thread, and what it starts, is in the one entered last.
class Network {
public:
    Network() : home_(currentNamespace()) {
        if (unshare(CLONE_NEWNET) != 0) {
            refusal_ = std::strerror(errno);
            return;
        }
        serverSide_ = currentNamespace();
        unshare(CLONE_NEWNET);
        clientSide_ = currentNamespace();
        runCommand("ip link set lo up && ip link add client type veth peer name server netns "
                   "/proc/" +
                   std::to_string(getpid()) + "/fd/" + std::to_string(serverSide_.number()));
        runCommand("ip address add 10.77.0.2/24 dev client && ip link set client up");
        enterServerSide();
        runCommand("ip link set lo up && ip address add 10.77.0.1/24 dev server && "
                   "ip link set server up");
    }

    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;
    ~Network() { setns(home_.number(), CLONE_NEWNET); }

    /// Why there is no network; empty when there is one.
    const std::string& whyNot() const { return refusal_; }

    void enterServerSide() const { setns(serverSide_.number(), CLONE_NEWNET); }
    void enterClientSide() const { setns(clientSide_.number(), CLONE_NEWNET); }

    /// From now on nothing that the client's host sends arrives; nobody is told.
    void silenceClient() const {
        enterClientSide();
        runCommand(std::string("ip route add blackhole ") + SERVER_ADDRESS);
        enterServerSide();
    }

private:
    Descriptor home_;
    Descriptor serverSide_;
    Descriptor clientSide_;
    std::string refusal_;
};

class VanishedPeer : public testing::Test {
protected:
    void SetUp() override {
        if (!network_.whyNot().empty()) {
            GTEST_SKIP() << "no network namespaces here: " << network_.whyNot();
        }
        server_.emplace();
        const std::uint16_t port = server_->port();
        network_.enterClientSide();
        client_.emplace(port, 0, support::PATIENCE, SERVER_ADDRESS);
        ASSERT_EQ(client_->request("L00"), "LL");
        network_.enterServerSide();
        network_.silenceClient();
    }

    Network network_;
    std::optional<ServerProcess> server_;
    std::optional<support::Client> client_;
};

} // namespace

TEST_F(VanishedPeer, IsReapedWithinTwoMinutes) {
    EXPECT_TRUE(server_->waitForOutput("was ended.", 1, REAP_LIMIT));
}
