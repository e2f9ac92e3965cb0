#include "Text.h"

#include <string>

#include <gtest/gtest.h>

using bridge::equalsIgnoringCase;
using bridge::lowered;
using bridge::pinFrom;

TEST(Text, OnlyAsciiLettersHaveACase) {
    EXPECT_EQ(lowered("AZaz09@[`{\xC4"), "azaz09@[`{\xC4");
    EXPECT_TRUE(equalsIgnoringCase("X-Gpio", "x-gPIO"));
    EXPECT_FALSE(equalsIgnoringCase("\xC4", "\xE4"));
    EXPECT_FALSE(equalsIgnoringCase("@", "`"));
}

TEST(Text, EqualTextsAreEquallyLong) {
    EXPECT_FALSE(equalsIgnoringCase("chunked", "chunke"));
    EXPECT_FALSE(equalsIgnoringCase("chunke", "chunked"));
}

TEST(Text, APinIsADecimalNumber) {
    EXPECT_EQ(pinFrom("0"), 0U);
    EXPECT_EQ(pinFrom("28"), 28U);
    EXPECT_EQ(pinFrom("999"), 999U);
}

TEST(Text, APinHasNoSecondName) {
    for (const std::string text : {"", "00", "01", "+1", "-1", " 1", "1 ", "1x", "x", "0x1", "%31",
                                   "1000", "4294967296", "99999999999999999999"}) {
        EXPECT_EQ(pinFrom(text), std::nullopt) << text;
    }
}
