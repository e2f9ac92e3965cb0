#include <array>
#include <cstdio>
#include <future>

#include "BoardServer.h"
#include "support/ProcessInfo.h"
#include "support/Scale.h"

namespace {

using support::Client;

constexpr int FIRST_INPUT = 13;

std::string changeMessage(int before, int now) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "U%04x|%04xU", (before ^ now) << FIRST_INPUT,
                  now << FIRST_INPUT);
    return text.data();
}

std::string inputsCommand(int inputs) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "inputs %02x %02x", inputs & 0xFF, inputs >> 8);
    return text.data();
}

TEST(BoardService, AnswersWithWhatTheBoardHasToldAndTaken) {
    ServingBoard served({"--inputs", "01", "80"});
    Client client = served.connect();
    EXPECT_EQ(client.request("A000"), "A00008001A");
    EXPECT_EQ(client.request("R0D0"), "R1R");
    EXPECT_EQ(client.request("R0E0"), "R0R");
    EXPECT_EQ(client.request("R1C0"), "R1R");
    EXPECT_EQ(client.request("V000"), "Vv1.0V");
    EXPECT_EQ(client.request("W041"), "W1W");
    EXPECT_EQ(client.request("A000"), "A00088001A");
}

TEST(BoardService, DrivesEveryOutputOfTheBoard) {
    ServingBoard served;
    Client client = served.connect();
    std::string expected;
    for (int pin = 0; pin < FIRST_INPUT; ++pin) {
        std::array<char, 8> command{};
        std::snprintf(command.data(), command.size(), "W%02X1", static_cast<unsigned>(pin));
        EXPECT_EQ(client.request(command.data()), "W1W");
        expected += (pin == 0 ? "" : " ") + std::to_string(pin == 0 ? 12 : pin - 1) + "=1";
    }
    served.board.waitFor("output-writes >= 13");
    EXPECT_EQ(served.board.command("log"), expected);
    for (int pin = 0; pin < FIRST_INPUT; ++pin) {
        served.board.waitFor("output-" + std::to_string(pin) + " 1");
    }
}

TEST(BoardService, TellsChangesToListenersAndOnlyToThem) {
    ServingBoard served;
    Client other = served.connect();
    Client listener = served.connectListener();
    served.board.command("inputs 01 00");
    EXPECT_EQ(listener.receiveLine(), "U2000|2000U");
    EXPECT_EQ(other.request("K000"), "KK") << "the first thing that it receives";
}

TEST(BoardService, ReportsEveryHighInputWithTheFirstMessageOfEachConnection) {
    ServingBoard served({"--inputs", "0F", "80"});
    {
        Client listener = served.connectListener();
        served.board.command("inputs 0F 81");
        EXPECT_EQ(listener.receiveLine(), "U1021e000|1021e000U");
    }
    served.comeBack();
    served.waitUntilServing(2);
    Client listener = served.connectListener();
    served.board.command("inputs 0E 81");
    EXPECT_EQ(listener.receiveLine(), "U1021c000|1021c000U");
}

TEST(BoardService, WritesWhileTheBoardIsSilent) {
    ServingBoard served;
    served.board.command("stall reads on");
    Client client = served.connect();
    EXPECT_EQ(client.request("W011"), "W1W");
    served.board.waitFor("output-0 1");
}

TEST(BoardService, WriteThatTheBoardHoldsBackHoldsUpCommandsAboutPinsOnly) {
    const ServingBoard served;
    Client writer = served.connect();
    Client asking = served.connect();
    Client other = served.connect();
    served.board.command("stall writes on");
    ASSERT_TRUE(writer.send("W011"));
    served.board.waitFor("pending-writes = 1");
    ASSERT_TRUE(asking.send("A000"));
    EXPECT_EQ(other.request("V000"), "Vv1.0V");
    EXPECT_EQ(asking.receive(1, std::chrono::milliseconds(300)), "");
    served.board.command("stall writes off");
    EXPECT_EQ(writer.receiveLine(), "W1W");
    EXPECT_EQ(asking.receiveLine(), "A00010000A");
}

TEST(BoardService, PassesOverWhatIsNoMessageOfTheBoard) {
    ServingBoard served;
    Client listener = served.connectListener();
    served.board.command("send 49 ff 00");
    served.board.command("inputs 01 00");
    EXPECT_EQ(listener.receiveLine(), "U2000|2000U");
}

TEST(BoardService, CarriesWritesAndChangesAtTheSameTimeInOrder) {
    const int count = support::rounds(1000, 200);
    ServingBoard served;
    Client listener = served.connectListener();
    Client writer = served.connect();
    std::string expectedLog;
    auto writing = std::async(std::launch::async, [&] {
        int accepted = 0;
        for (int index = 0; index < count; ++index) {
            const int pin = 1 + index % 12;
            const int level = index / 12 % 2;
            std::array<char, 8> command{};
            std::snprintf(command.data(), command.size(), "W%02X%d", static_cast<unsigned>(pin),
                          level);
            accepted += writer.request(command.data()) == "W1W" ? 1 : 0;
            expectedLog +=
                (index == 0 ? "" : " ") + std::to_string(pin - 1) + "=" + std::to_string(level);
        }
        return accepted;
    });
    auto changing = std::async(std::launch::async, [&] {
        for (int inputs = 1; inputs <= count; ++inputs) {
            served.board.command(inputsCommand(inputs));
        }
    });
    for (int inputs = 1; inputs <= count; ++inputs) {
        ASSERT_EQ(listener.receiveLine(), changeMessage(inputs - 1, inputs));
    }
    changing.get();
    EXPECT_EQ(writing.get(), count);
    served.board.waitFor("output-writes >= " + std::to_string(count));
    EXPECT_EQ(served.board.command("log"), expectedLog);
}

double processorShare(pid_t process) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::seconds SPAN(5);
    const auto begin = Clock::now();
    const double before = support::processorSeconds(process);
    std::this_thread::sleep_for(SPAN);
    const double used = support::processorSeconds(process) - before;
    return used / std::chrono::duration<double>(Clock::now() - begin).count();
}

TEST(BoardService, CostsNextToNothingWhenIdle) {
    const support::VirtualBoard bare;
    const support::Process reader(
        {.executable = IDLE_READER_EXECUTABLE, .environment = bare.environment()});
    bare.waitFor("pending-reads >= 1");
    const double unavoidable = processorShare(reader.pid());

    ServingBoard served;
    Client client = served.connect();
    EXPECT_EQ(client.request("I000"), "I0010I");
    const double share = processorShare(served.server.pid());
    RecordProperty("idle reader in percent", std::to_string(100 * unavoidable));
    RecordProperty("idle server in percent", std::to_string(100 * share));
    constexpr double ALLOWANCE = 0.02;
    EXPECT_LE(share, unavoidable + ALLOWANCE);
}

} // namespace
