#include "kel/ip_address.h"

#include <gtest/gtest.h>

namespace {

IpAddress Address(const char* text) {
    return IpAddress::Parse(text).value();
}

/// The addresses of a range in its order, each followed by a blank.
KelString Walk(const IpRange& range, int limit = 100) {
    KelString walked;
    IpAddress address;
    for (int i = 0; i < limit && range.GetNextAddress(address, i == 0); ++i)
        walked += address.ToText() + " ";
    return walked;
}

TEST(IpAddress, DottedFormOnly) {
    EXPECT_EQ(Address("127.0.0.1").Value(), 0x7F000001U);
    EXPECT_EQ(Address("255.255.255.255").ToText(), "255.255.255.255");
    for (const char* bad : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.-4", " 1.2.3.4", "1.2.3.4 ",
                            "1..3.4", "1.2.3.", "0x1.2.3.4", "1.2.3.0004", "a.b.c.d"})
        EXPECT_FALSE(IpAddress::Parse(bad)) << bad;
    EXPECT_EQ(IpAddress::Resolve("10.1.2.3")->ToText(), "10.1.2.3");
    EXPECT_FALSE(IpAddress::Resolve(""));
    EXPECT_LT(Address("9.255.255.255"), Address("10.0.0.0"));
}

TEST(IpRange, ItemsOfEachForm) {
    IpRange range;
    EXPECT_TRUE(range.Parse(" 10.0.0.1-10.0.0.3,10.1.1.1;192.168.0.9/30\t10.2.0.0 - 10.2.0.1 "));
    EXPECT_EQ(Walk(range),
              "10.0.0.1 10.0.0.2 10.0.0.3 10.1.1.1 192.168.0.8 192.168.0.9 192.168.0.10 192.168.0.11 "
              "10.2.0.0 10.2.0.1 ");
    EXPECT_TRUE(range.Contains(Address("192.168.0.11")));
    EXPECT_FALSE(range.Contains(Address("192.168.0.12")));
    EXPECT_TRUE(range.Parse(""));
    EXPECT_TRUE(range.IsEmpty() && Walk(range).empty());
    EXPECT_FALSE(range.Contains(IpAddress()));
}

TEST(IpRange, MalformedItemsAreLeftOut) {
    IpRange range;
    EXPECT_FALSE(range.Parse("10.0.0.5-10.0.0.1, 10.0.0.7, 10.0.0.0/33, 10.0.0.0/, x, 1.2.3.4-, -"));
    EXPECT_EQ(Walk(range), "10.0.0.7 ");
}

TEST(IpRange, WholeSpaceAndOverlapsEnd) {
    IpRange range;
    ASSERT_TRUE(range.Parse("255.255.255.254-255.255.255.255, 0.0.0.0/0"));
    EXPECT_TRUE(range.Contains(Address("1.2.3.4")));
    EXPECT_EQ(Walk(range, 4), "255.255.255.254 255.255.255.255 0.0.0.0 0.0.0.1 ");
    IpAddress address = Address("255.255.255.253");
    EXPECT_FALSE(range.GetNextAddress(address, false)) << "the last of the second item";

    ASSERT_TRUE(range.Parse("10.0.0.2, 10.0.0.1-10.0.0.4, 10.0.0.2-10.0.0.5, 10.0.0.3"));
    EXPECT_EQ(Walk(range), "10.0.0.2 10.0.0.1 10.0.0.3 10.0.0.4 10.0.0.5 ");
}

}  // namespace
