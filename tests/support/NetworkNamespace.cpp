#include "support/NetworkNamespace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>

namespace support {

namespace {

Descriptor currentNamespace() {
    return Descriptor(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
}

} // namespace

NetworkNamespace::NetworkNamespace() : home_(currentNamespace()) {
    if (unshare(CLONE_NEWNET) != 0) {
        refusal_ = std::strerror(errno);
        return;
    }
    own_ = currentNamespace();
    EXPECT_EQ(std::system("ip link set lo up"), 0); // NOLINT(cert-env33-c)
}

NetworkNamespace::~NetworkNamespace() {
    setns(home_.number(), CLONE_NEWNET);
}

void NetworkNamespace::enter() const {
    setns(own_.number(), CLONE_NEWNET);
}

} // namespace support
