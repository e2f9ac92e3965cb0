#include <gtest/gtest.h>

#include <gpio-client/OutputMemory.h>

using gpioclient::Level;
using gpioclient::Levels;
using gpioclient::OutputMemory;

namespace {

constexpr Levels answerWith(gpioclient::PinMask high) {
    return {high, 0b0110};
}

class RememberedOutputs : public testing::Test {
protected:
    static constexpr gpioclient::PinMask OUTPUTS = 0b0111;

    OutputMemory memory_;
};

} // namespace

TEST_F(RememberedOutputs, BelievesTheServerAtTheFirstConnection) {
    EXPECT_EQ(memory_.merge(answerWith(0b0010)), (Levels{0b0010, 0b0110}));
}

TEST_F(RememberedOutputs, KnowsAnOutputThatOnlyWritingTells) {
    memory_.remember(0, Level::High);
    EXPECT_EQ(memory_.merge(answerWith(0b0010)), (Levels{0b0011, 0b0111}));
    memory_.remember(0, Level::Low);
    EXPECT_EQ(memory_.merge(answerWith(0b0010)), (Levels{0b0010, 0b0111}));
}

TEST_F(RememberedOutputs, PrefersTheServersAnswerToWhatWasWritten) {
    memory_.remember(1, Level::High);
    EXPECT_EQ(memory_.merge(answerWith(0)), (Levels{0, 0b0110}));
}

TEST_F(RememberedOutputs, KnowsNoOutputAfterALoss) {
    memory_.remember(0, Level::High);
    memory_.merge(answerWith(0b0110));
    memory_.forget(OUTPUTS);
    EXPECT_EQ(memory_.merge(answerWith(0b0110)), (Levels{0, 0}));
    EXPECT_EQ(memory_.merge(answerWith(0b0110)), (Levels{0, 0}));
}

TEST_F(RememberedOutputs, DoubtsOnlyWhatItIsToForget) {
    memory_.forget(0b0011);
    EXPECT_EQ(memory_.merge(answerWith(0b0110)), (Levels{0b0100, 0b0100}));
}

TEST_F(RememberedOutputs, KnowsAnOutputThatIsWrittenAfterTheLoss) {
    memory_.forget(OUTPUTS);
    memory_.remember(1, Level::Low);
    memory_.remember(0, Level::High);
    EXPECT_EQ(memory_.merge(answerWith(0b0100)), (Levels{0b0001, 0b0011}));
}

TEST_F(RememberedOutputs, KnowsAnOutputForGoodOnceTheAnswerHasChanged) {
    memory_.forget(OUTPUTS);
    memory_.merge(answerWith(0b0100));
    EXPECT_EQ(memory_.merge(answerWith(0)), (Levels{0, 0b0100}));
    EXPECT_EQ(memory_.merge(answerWith(0b0100)), (Levels{0b0100, 0b0100}));
    EXPECT_EQ(memory_.doubted(), 0b0011U);
}
