#include "Host.h"

#include <string_view>

#include <gtest/gtest.h>

using bridge::isAddress;
using bridge::isLoopback;
using namespace std::string_view_literals;

TEST(Host, AddressesAreThoseOfBothFamilies) {
    for (const auto& text : {"192.0.2.1", "0.0.0.0", "::", "2001:db8::1", "::ffff:192.0.2.1"}) {
        EXPECT_TRUE(isAddress(text)) << text;
    }
}

TEST(Host, NamesAndOtherFormsAreNoAddresses) {
    for (const auto& text : {""sv, "localhost"sv, "1.2.3"sv, "1.2.3.256"sv, "1.2.3.04"sv, "[::1]"sv,
                             "fe80::1%lo"sv, "1.2.3.4\0.example"sv}) {
        EXPECT_FALSE(isAddress(text)) << text;
    }
}

TEST(Host, LoopbackIsKnownInEachOfItsForms) {
    for (const auto& host :
         {"localhost", "LocalHost", "127.0.0.1", "127.255.255.255", "::1", "0:0:0:0:0:0:0:1",
          "0000:0000:0000:0000:0000:0000:0000:0001", "::0.0.0.1"}) {
        EXPECT_TRUE(isLoopback(host)) << host;
    }
}

TEST(Host, WhatMightLeadElsewhereIsNoLoopback) {
    for (const auto& host : {""sv,
                             "localhost.example"sv,
                             "localhost."sv,
                             " localhost"sv,
                             "localhost\0"sv,
                             "127.0.0.1.example"sv,
                             "127.0.0.1\0.example"sv,
                             "127.1"sv,
                             "0x7f.0.0.1"sv,
                             "126.255.255.255"sv,
                             "128.0.0.1"sv,
                             "0.0.0.0"sv,
                             "::"sv,
                             "::2"sv,
                             "1::1"sv,
                             "[::1]"sv,
                             "::1%lo"sv,
                             "::1\0"sv,
                             "::127.0.0.1"sv,
                             "::ffff:192.0.2.1"sv}) {
        EXPECT_FALSE(isLoopback(host)) << host;
    }
}
