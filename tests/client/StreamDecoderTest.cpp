#include "StreamDecoder.h"

#include <gtest/gtest.h>

#include <gpio-client/Error.h>

using gpioclient::Answer;
using gpioclient::Cause;
using gpioclient::Error;
using gpioclient::StreamDecoder;

namespace {

constexpr std::size_t QUEUE = 8;

/// The answer to `letter` in a stream that arrives as these pieces.
std::optional<Answer> decode(char letter, const std::vector<std::string>& pieces) {
    StreamDecoder decoder(QUEUE);
    for (const std::string& piece : pieces) {
        decoder.append(piece);
    }
    return decoder.takeAnswer(letter);
}

std::string answerText(char letter, const std::string& stream) {
    const auto answer = decode(letter, {stream});
    return answer ? answer->text : "nothing";
}

void expectViolation(char letter, const std::string& stream) {
    try {
        const auto answer = decode(letter, {stream});
        ADD_FAILURE() << stream << " was taken as " << (answer ? answer->text : "incomplete");
    } catch (const Error& error) {
        EXPECT_EQ(error.cause(), Cause::ProtocolViolation) << error.what();
    }
}

} // namespace

TEST(StreamDecoderTest, TakesEachKindOfAnswer) {
    EXPECT_EQ(answerText('A', "A00a5A\n"), "A00a5A");
    EXPECT_EQ(answerText('A', "Affffffff80000000A\n"), "Affffffff80000000A");
    EXPECT_EQ(answerText('B', "DBG\n"), "DBG");
    EXPECT_EQ(answerText('D', "D1D\n"), "D1D");
    EXPECT_EQ(answerText('I', "I0008I\n"), "I0008I");
    EXPECT_EQ(answerText('K', "KK\n"), "KK");
    EXPECT_EQ(answerText('L', "LL\n"), "LL");
    EXPECT_EQ(answerText('O', "O000dO\n"), "O000dO");
    EXPECT_EQ(answerText('P', "Pffffffffffffe000P\n"), "Pffffffffffffe000P");
    EXPECT_EQ(answerText('R', "R0R\n"), "R0R");
    EXPECT_EQ(answerText('S', "S0S\n"), "S0S");
    EXPECT_EQ(answerText('V', "Vv12.255V\n"), "Vv12.255V");
    EXPECT_EQ(answerText('W', "W1W\n"), "W1W");
}

TEST(StreamDecoderTest, TakesAnAnswerBeforeItsLineEnd) {
    EXPECT_EQ(answerText('R', "R1R"), "R1R");
}

TEST(StreamDecoderTest, TakesAnAnswerSplitAtEveryByte) {
    const std::string stream = "A00a5A\n";
    for (std::size_t split = 1; split < stream.size(); ++split) {
        const auto answer = decode('A', {stream.substr(0, split), stream.substr(split)});
        ASSERT_TRUE(answer) << split;
        EXPECT_EQ(answer->text, "A00a5A") << split;
    }
}

TEST(StreamDecoderTest, HasNoAnswerWhileItIsIncomplete) {
    const std::string stream = "A00a5A";
    for (std::size_t size = 0; size < stream.size(); ++size) {
        EXPECT_FALSE(decode('A', {stream.substr(0, size)})) << size;
    }
}

TEST(StreamDecoderTest, TakesAnErrorTextWithoutLineEnd) {
    const auto answer = decode('Z', {"^ UNKNOWN COMMAND: Z00 ^"});
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->isError);
    EXPECT_EQ(answer->text, "UNKNOWN COMMAND: Z00");
}

TEST(StreamDecoderTest, TakesAnErrorTextSplitAtEveryByte) {
    const std::string stream = "^INVALLID COMMAND: W3^";
    for (std::size_t split = 1; split < stream.size(); ++split) {
        StreamDecoder decoder(QUEUE);
        decoder.append(stream.substr(0, split));
        EXPECT_FALSE(decoder.takeAnswer('W')) << split;
        decoder.append(stream.substr(split));
        const auto answer = decoder.takeAnswer('W');
        ASSERT_TRUE(answer) << split;
        EXPECT_EQ(answer->text, "INVALLID COMMAND: W3") << split;
    }
}

TEST(StreamDecoderTest, TakesAnAnswerRightAfterAnErrorText) {
    StreamDecoder decoder(QUEUE);
    decoder.append("^ UNKNOWN COMMAND: Z00 ^");
    decoder.takeAnswer('Z');
    decoder.append("R1R\n");
    EXPECT_EQ(decoder.takeAnswer('R')->text, "R1R");
}

TEST(StreamDecoderTest, TakesANoticeAtEveryPlaceOfAnAnswer) {
    const std::string answerLine = "A0000a500A\n";
    for (std::size_t place = 0; place <= answerLine.size(); ++place) {
        StreamDecoder decoder(QUEUE);
        decoder.append(answerLine.substr(0, place) + "U2000|1fffc000U\n" +
                       answerLine.substr(place));
        const auto answer = decoder.takeAnswer('A');
        ASSERT_TRUE(answer) << place;
        EXPECT_EQ(answer->text, "A0000a500A") << place;
        const auto notice = decoder.takeNotice();
        ASSERT_TRUE(notice) << place;
        EXPECT_EQ(notice->changed, 0x2000U) << place;
        EXPECT_EQ(notice->high, 0x1fffc000U) << place;
    }
}

TEST(StreamDecoderTest, TakesANoticeInAnAnswerSplitAtEveryByte) {
    const std::string stream = "A0000U2000|1fffc000U\na500A\n";
    for (std::size_t split = 1; split < stream.size(); ++split) {
        StreamDecoder decoder(QUEUE);
        decoder.append(stream.substr(0, split));
        auto answer = decoder.takeAnswer('A');
        decoder.append(stream.substr(split));
        answer = answer ? answer : decoder.takeAnswer('A');
        ASSERT_TRUE(answer) << split;
        EXPECT_EQ(answer->text, "A0000a500A") << split;
        EXPECT_TRUE(decoder.takeNotice()) << split;
    }
}

TEST(StreamDecoderTest, TakesNoticeAndAnswerWhoseLineEndsComeLast) {
    for (const char* stream : {"U0008|0008UR1R\n\n", "R1RU0008|0008U\n\n"}) {
        StreamDecoder decoder(QUEUE);
        decoder.append(stream);
        EXPECT_EQ(decoder.takeAnswer('R')->text, "R1R") << stream;
        EXPECT_TRUE(decoder.takeNotice()) << stream;
    }
}

TEST(StreamDecoderTest, TakesANoticeInAnErrorText) {
    StreamDecoder decoder(QUEUE);
    decoder.append("^INVALID U0008|0008U\nCOMMAND: I00^");
    EXPECT_EQ(decoder.takeAnswer('I')->text, "INVALID COMMAND: I00");
    EXPECT_TRUE(decoder.takeNotice());
}

TEST(StreamDecoderTest, DoesNotTakeAnUnknownVersionForANotice) {
    EXPECT_EQ(answerText('V', "VUnknownV\n"), "VUnknownV");
}

TEST(StreamDecoderTest, JoinedNoticesKeepTheirOrder) {
    StreamDecoder decoder(QUEUE);
    decoder.append("U0001|0001U\nU0002|0003U\nU0001|0002U\n");
    EXPECT_EQ(decoder.takeNotice()->high, 1U);
    EXPECT_EQ(decoder.takeNotice()->high, 3U);
    EXPECT_EQ(decoder.takeNotice()->high, 2U);
    EXPECT_FALSE(decoder.takeNotice());
}

TEST(StreamDecoderTest, DropsTheOldestNoticesBeyondItsLimit) {
    StreamDecoder decoder(2);
    decoder.append("U0001|0001U\nU0001|0002U\nU0001|0003U\n");
    EXPECT_EQ(decoder.droppedNotices(), 1U);
    EXPECT_EQ(decoder.takeNotice()->high, 2U);
}

TEST(StreamDecoderTest, RefusesTheWrongLetter) {
    expectViolation('R', "W1W\n");
}

TEST(StreamDecoderTest, RefusesTheWrongClosingLetter) {
    expectViolation('R', "R1W\n");
}

TEST(StreamDecoderTest, RefusesWrongDigits) {
    expectViolation('R', "R2R\n");
    expectViolation('A', "A00G5A\n");
    expectViolation('P', "P00FFP\n");
}

TEST(StreamDecoderTest, RefusesAMaskThatIsTooShort) {
    expectViolation('A', "A000A\n");
}

TEST(StreamDecoderTest, RefusesAMaskThatIsTooShortForTheBoard) {
    StreamDecoder decoder(QUEUE);
    decoder.setMaskDigits(8);
    decoder.append("A0000A\n");
    EXPECT_THROW(decoder.takeAnswer('A'), Error);
}

TEST(StreamDecoderTest, RefusesAMaskThatIsTooLong) {
    expectViolation('A', "A00000000000000000A\n");
}

TEST(StreamDecoderTest, RefusesAVersionWithoutEnd) {
    expectViolation('V', "V" + std::string(80, 'x'));
}

TEST(StreamDecoderTest, RefusesAMessageWithoutEnd) {
    expectViolation('R', "^" + std::string(10'000, 'x'));
}

TEST(StreamDecoderTest, RefusesALineEndOutOfPlace) {
    expectViolation('R', "\nR1R\n");
}

TEST(StreamDecoderTest, RefusesASecondAnswerInTheSameLine) {
    StreamDecoder decoder(QUEUE);
    decoder.append("R1R");
    decoder.takeAnswer('R');
    decoder.append("R0R\n");
    EXPECT_THROW(decoder.takeAnswer('R'), Error);
}

TEST(StreamDecoderTest, RefusesAnAnswerThatNobodyAskedFor) {
    StreamDecoder decoder(QUEUE);
    decoder.append("R1RR0R\n");
    decoder.takeAnswer('R');
    EXPECT_THROW(decoder.expectNoAnswer(), Error);
}

TEST(StreamDecoderTest, RefusesANoticeWithTooFewDigits) {
    StreamDecoder decoder(QUEUE);
    decoder.append("U008|0008U\n");
    EXPECT_THROW(decoder.expectNoAnswer(), Error);
}

TEST(StreamDecoderTest, AcceptsTheBeginningOfANotice) {
    const std::string notice = "U2000|1fffc000U";
    for (std::size_t size = 1; size < notice.size(); ++size) {
        StreamDecoder decoder(QUEUE);
        decoder.append(notice.substr(0, size));
        EXPECT_NO_THROW(decoder.expectNoAnswer()) << size;
    }
}
