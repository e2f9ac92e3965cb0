#include "FirmwareQuery.h"

#include <atomic>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/FakeServer.h"

using bridge::FirmwareQuery;

namespace {

class QueryForFirmware : public testing::Test {
protected:
    static gpioclient::Options options(gpioclient::BackEnd backEnd) {
        gpioclient::Options options;
        options.backEnd = backEnd;
        return options;
    }

    /// Asks until a further request has been answered.
    void askAgain(gpioclient::Client& client) {
        const int before = requests_;
        ASSERT_TRUE(support::eventually([&] {
            query_.askIfDue(client);
            return requests_ > before;
        }));
    }

    std::atomic<const char*> answer_ = "VUnknownV";
    std::atomic<int> requests_ = 0;
    support::FakeServer server_{[this](const support::FakePeer& peer) {
        while (peer.receive() == "V000") {
            ++requests_;
            peer.send(answer_.load());
        }
    }};
    FirmwareQuery query_;
};

} // namespace

TEST_F(QueryForFirmware, AsksUntilTheBoardHasToldItsVersion) {
    gpioclient::Client client(server_.endpoint(), options(gpioclient::BackEnd::Board));
    query_.askIfDue(client);
    EXPECT_EQ(query_.answer(), "Unknown");
    answer_ = "Vv2.5V";
    askAgain(client);
    EXPECT_EQ(query_.answer(), "v2.5");
}

TEST_F(QueryForFirmware, DoesNotAskForAKnownVersionAgainAtOnce) {
    gpioclient::Client client(server_.endpoint(), options(gpioclient::BackEnd::Board));
    answer_ = "Vv2.5V";
    query_.askIfDue(client);
    query_.askIfDue(client);
    EXPECT_EQ(requests_, 1);
}

TEST_F(QueryForFirmware, ForgetsTheAnswerAndAsksAtOnceOnANewConnection) {
    gpioclient::Client client(server_.endpoint(), options(gpioclient::BackEnd::Board));
    query_.askIfDue(client);
    query_.restart();
    EXPECT_EQ(query_.answer(), "");
    answer_ = "Vv2.5V";
    query_.askIfDue(client);
    EXPECT_EQ(query_.answer(), "v2.5");
}

TEST_F(QueryForFirmware, KeepsTheAnswerWhenTheServerRefuses) {
    gpioclient::Client client(server_.endpoint(), options(gpioclient::BackEnd::Board));
    query_.askIfDue(client);
    answer_ = "^ UNKNOWN COMMAND: V000 ^";
    askAgain(client);
    EXPECT_EQ(query_.answer(), "Unknown");
}

TEST_F(QueryForFirmware, AsksNoTestBackEnd) {
    gpioclient::Client client(server_.endpoint(), options(gpioclient::BackEnd::Test));
    query_.askIfDue(client);
    EXPECT_EQ(requests_, 0);
    EXPECT_EQ(query_.answer(), "");
}

TEST_F(QueryForFirmware, TellsAVersionFromNone) {
    EXPECT_TRUE(FirmwareQuery::isVersion("v2.5"));
    EXPECT_FALSE(FirmwareQuery::isVersion("Unknown"));
    EXPECT_FALSE(FirmwareQuery::isVersion(""));
}
