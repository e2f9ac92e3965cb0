#include "StreamDecoder.h"

#include <algorithm>
#include <fstream>
#include <numeric>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <gpio-client/Error.h>

using gpioclient::Cause;
using gpioclient::Error;
using gpioclient::StreamDecoder;

namespace {

using nlohmann::json;

constexpr std::size_t QUEUE = 8;

/// The vectors write each byte as the character of its number, which JSON has in UTF-8.
std::string bytesOf(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto first = static_cast<unsigned char>(text[i]);
        bytes += first < 0x80 ? text[i] : static_cast<char>((first << 6U) | (text[++i] & 0x3f));
    }
    return bytes;
}

std::string hex(gpioclient::PinMask mask) {
    std::ostringstream text;
    text << std::hex << mask;
    return text.str();
}

/// What a decoder makes of the packets, in the form of the vectors.
json decode(const json& vector, const std::vector<std::string>& packets) {
    StreamDecoder decoder(QUEUE);
    decoder.setMaskDigits(vector["maskDigits"]);
    std::string letters = vector["letters"];
    json result{{"answers", json::array()}, {"notices", json::array()}, {"violation", false}};
    try {
        for (const std::string& packet : packets) {
            decoder.append(packet);
            while (!letters.empty()) {
                const auto answer = decoder.takeAnswer(letters.front());
                if (!answer) {
                    break;
                }
                letters.erase(0, 1);
                result["answers"].push_back(answer->isError ? json{{"error", answer->text}}
                                                            : json(answer->text));
            }
            if (letters.empty()) {
                decoder.expectNoAnswer();
            }
            while (const auto notice = decoder.takeNotice()) {
                result["notices"].push_back({hex(notice->changed), hex(notice->high)});
            }
        }
    } catch (const Error& error) {
        EXPECT_EQ(error.cause(), Cause::ProtocolViolation);
        return {{"answers", json::array()}, {"notices", json::array()}, {"violation", true}};
    }
    return result;
}

using Packets = std::vector<std::string>;

void expectWhatTheVectorsSay(Packets (*cut)(const Packets&)) {
    std::ifstream file(STREAM_VECTORS_PATH);
    const json vectors = json::parse(file);
    EXPECT_GT(vectors.size(), 40U);
    for (json vector : vectors) {
        Packets packets = vector["packets"];
        std::transform(packets.begin(), packets.end(), packets.begin(), bytesOf);
        const json decoded = decode(vector, cut(packets));
        for (const auto& [key, value] : decoded.items()) {
            EXPECT_EQ(value, vector[key]) << vector["name"];
        }
    }
}

std::string joined(const Packets& packets) {
    return std::accumulate(packets.begin(), packets.end(), std::string());
}

} // namespace

TEST(StreamDecoder, TakesPacketsAsTheyCome) {
    expectWhatTheVectorsSay([](const Packets& packets) { return packets; });
}

TEST(StreamDecoder, TakesAllPacketsAsOne) {
    expectWhatTheVectorsSay([](const Packets& packets) { return Packets{joined(packets)}; });
}

TEST(StreamDecoder, TakesEveryByteByItself) {
    expectWhatTheVectorsSay([](const Packets& packets) {
        Packets bytes;
        for (const char byte : joined(packets)) {
            bytes.emplace_back(1, byte);
        }
        return bytes;
    });
}

TEST(StreamDecoder, TakesANoticeAtEveryPlaceOfAnAnswer) {
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

TEST(StreamDecoder, DropsTheOldestNoticesBeyondItsLimit) {
    StreamDecoder decoder(2);
    decoder.append("U0001|0001U\nU0001|0002U\nU0001|0003U\n");
    EXPECT_EQ(decoder.droppedNotices(), 1U);
    EXPECT_EQ(decoder.takeNotice()->high, 2U);
}
