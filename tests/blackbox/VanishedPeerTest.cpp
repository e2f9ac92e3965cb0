#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/Client.h"
#include "support/NetworkNamespace.h"
#include "support/ServerProcess.h"

using namespace std::chrono_literals;
using support::ServerProcess;

namespace {

constexpr const char* SERVER_ADDRESS = "10.77.0.1";

// What is promised for a host that vanishes.
constexpr auto REAP_LIMIT = 120s;

/// Runs one of the commands of this file.
void runCommand(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command; // NOLINT(cert-env33-c)
}

/// Two networks joined by one cable, one for the server and one for its client. The calling thread,
/// and what it starts, is in the one entered last.
class Network {
public:
    Network() {
        if (!whyNot().empty()) {
            return;
        }
        runCommand("ip link add client type veth peer name server netns /proc/" +
                   std::to_string(getpid()) + "/fd/" + std::to_string(serverSide_.descriptor()));
        runCommand("ip address add 10.77.0.2/24 dev client && ip link set client up");
        enterServerSide();
        runCommand("ip address add 10.77.0.1/24 dev server && ip link set server up");
    }

    /// Why there is no network; empty when there is one.
    const std::string& whyNot() const { return clientSide_.whyNot(); }

    void enterServerSide() const { serverSide_.enter(); }
    void enterClientSide() const { clientSide_.enter(); }

    /// From now on nothing that the client's host sends arrives; nobody is told.
    void silenceClient() const {
        enterClientSide();
        runCommand(std::string("ip route add blackhole ") + SERVER_ADDRESS);
        enterServerSide();
    }

private:
    support::NetworkNamespace serverSide_;
    support::NetworkNamespace clientSide_;
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
