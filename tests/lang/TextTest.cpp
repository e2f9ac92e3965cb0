#include "lang/Text.h"

#include <gtest/gtest.h>

TEST(HexText, PadsToTheGivenWidth) {
    EXPECT_EQ(lang::toHex(0, 4), "0000");
    EXPECT_EQ(lang::toHex(0xa5, 4), "00a5");
    EXPECT_EQ(lang::toHex(0, 1), "0");
}

TEST(HexText, WiderNumbersKeepAllTheirDigits) {
    EXPECT_EQ(lang::toHex(65536, 4), "10000");
    EXPECT_EQ(lang::toHex(0x1fffc000, 4), "1fffc000");
    EXPECT_EQ(lang::toHex(0xFFFFFFFFFFFFE000, 4), "ffffffffffffe000");
}
