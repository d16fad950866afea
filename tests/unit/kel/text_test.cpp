#include "kel/text.h"

#include <gtest/gtest.h>

#include "kel/base64.h"
#include "kel/format.h"
#include "kel/ip_address.h"

namespace {

using Pieces = KelVector<KelString>;

TEST(Text, CaseFoldingIsForAsciiLettersOnly) {
    EXPECT_TRUE(IsEqualTo("AbZ[", "aBz[", false));
    EXPECT_FALSE(IsEqualTo("@[", "`{", false)) << "neighbours of the letters";
    EXPECT_FALSE(IsEqualTo("\xC3\x84", "\xC3\xA4", false));
    EXPECT_FALSE(IsEqualTo("a", "A", true) || IsEqualTo("a", "ab", false));
}

TEST(Text, ReplaceAndSplitAtTheirEdges) {
    EXPECT_EQ(ReplaceAll("aaa", "aa", "a"), "aa") << "what was put in is not searched again";
    EXPECT_EQ(ReplaceAll("abc", "", "x"), "abc");
    EXPECT_EQ(SplitText("", '/'), (Pieces{""}));
    EXPECT_EQ(SplitText("/a//", '/'), (Pieces{"", "a", "", ""}));
}

TEST(Text, NumbersAreTakenWholeOrNotAtAll) {
    EXPECT_EQ(ParseInt64("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(ParseUint64("18446744073709551615"), UINT64_MAX);
    for (const char* bad : {"", " 1", "1 ", "+1", "1.0", "0x1", "9223372036854775808", "-", "--1"})
        EXPECT_FALSE(ParseInt64(bad)) << bad;
    EXPECT_FALSE(ParseUint64("-1") || ParseUint64("18446744073709551616"));
}

TEST(Text, IllFormedUtf8IsFoundAtItsOffset) {
    const std::pair<KelString, std::size_t> cases[] = {
        {"a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", KelString::npos},
        {"ab\x80", 2},        // continuation without a lead
        {"a\xC3", 1},         // cut off
        {"\xE0\x9F\xBF", 0},  // overlong, as are those with C0 and F0 8F
        {"\xC0\xAF", 0},
        {"\xF0\x8F\xBF\xBF", 0},
        {"\xED\xA0\x80", 0},       // surrogate
        {"a\xF4\x90\x80\x80", 1},  // beyond U+10FFFF
        {"\xE2\x82x", 0},
        {"\xFF", 0}};
    for (const auto& [text, offset] : cases)
        EXPECT_EQ(FindIllFormedUtf8(text), offset) << HexText(text);
}

TEST(Base64, RoundTripAndRefusals) {
    // RFC 4648, section 10
    for (const auto& [bytes, text] :
         {std::pair{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foob", "Zm9vYg=="}, {"\xFF\xFE\xFB", "//77"}}) {
        EXPECT_EQ(Base64Encode(bytes), text);
        EXPECT_EQ(Base64Decode(text), bytes);
    }
    for (const char* bad : {"Z", "Zg=", "Zg", "Zh==", "Zg==Zg==", "Z===", "====", "Zm9\n", "Zm 8"})
        EXPECT_FALSE(Base64Decode(bad)) << bad;
}

TEST(Format, NumbersTextsAndPercentSigns) {
    EXPECT_EQ(KelFormat("%d %gd %x", INT32_MIN, std::int64_t{INT64_MIN}, 0xDEADBEEFU),
              "-2147483648 -9223372036854775808 deadbeef");
    EXPECT_EQ(KelFormat("%u %gu", 0xFFFFFFFFU, std::uint64_t{UINT64_MAX}), "4294967295 18446744073709551615");
    const KelString withZero("a\0b", 3);
    const char* none = nullptr;
    EXPECT_EQ(KelFormat("[%S][%s][%s]", withZero, "plain", none), "[" + withZero + "][plain][]");
    EXPECT_EQ(KelFormat("'%Q'", KelString("it's ''")), "'it''s '''''");
    EXPECT_EQ(KelFormat("%S", KelString("%d %S %%")), "%d %S %%") << "arguments are no format strings";
    EXPECT_EQ(KelFormat("'%/%S%' %gu %", KelString("x"), std::uint64_t{50}), "'%/x%' 50 %");
    EXPECT_EQ(KelFormat("100%% %l %gx %q%%d %s", "end"), "100% %l %gx %q%d end");
}

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
}

TEST(IpRange, WalksItemsOfEachFormAndLeavesMalformedOnesOut) {
    const std::tuple<const char*, bool, const char*> cases[] = {
        {" 10.0.0.1-10.0.0.3,10.1.1.1;192.168.0.9/30\t10.2.0.0 - 10.2.0.1 ", true,
         "10.0.0.1 10.0.0.2 10.0.0.3 10.1.1.1 192.168.0.8 192.168.0.9 192.168.0.10 192.168.0.11 "
         "10.2.0.0 10.2.0.1 "},
        {"", true, ""},
        {"10.0.0.5-10.0.0.1, 10.0.0.7, 10.0.0.0/33, 10.0.0.0/, x, 1.2.3.4-, -", false, "10.0.0.7 "},
        {"10.0.0.2, 10.0.0.1-10.0.0.4, 10.0.0.2-10.0.0.5, 10.0.0.3", true,
         "10.0.0.2 10.0.0.1 10.0.0.3 10.0.0.4 10.0.0.5 "}};
    IpRange range;
    for (const auto& [text, isGood, walked] : cases) {
        EXPECT_EQ(range.Parse(text), isGood) << text;
        EXPECT_EQ(Walk(range), walked);
        EXPECT_EQ(range.IsEmpty(), *walked == '\0');
    }
    EXPECT_TRUE(range.Contains(Address("10.0.0.5")));
    EXPECT_FALSE(range.Contains(Address("10.0.0.6")) || range.Contains(IpAddress()));
    ASSERT_TRUE(range.Parse("255.255.255.254-255.255.255.255, 0.0.0.0/0"));
    EXPECT_EQ(Walk(range, 4), "255.255.255.254 255.255.255.255 0.0.0.0 0.0.0.1 ");
    IpAddress address = Address("255.255.255.253");
    EXPECT_FALSE(range.GetNextAddress(address, false)) << "the last of the second item";
}

}  // namespace
