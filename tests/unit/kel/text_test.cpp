#include "kel/text.h"

#include <gtest/gtest.h>

#include "kel/base64.h"

namespace {

using Pieces = KelVector<KelString>;

TEST(Text, CaseFoldingIsForAsciiLettersOnly) {
    EXPECT_TRUE(IsEqualTo("AbZ[", "aBz[", false));
    EXPECT_FALSE(IsEqualTo("@[", "`{", false)) << "neighbours of the letters";
    EXPECT_FALSE(IsEqualTo("\xC3\x84", "\xC3\xA4", false));
    EXPECT_FALSE(IsEqualTo("a", "A", true));
    EXPECT_FALSE(IsEqualTo("a", "ab", false));
}

TEST(Text, TrimReplaceAndDouble) {
    EXPECT_EQ(Trim(" \t\r\n a b \n"), "a b");
    EXPECT_EQ(Trim(" \t"), "");
    EXPECT_EQ(ReplaceAll("aaa", "aa", "a"), "aa") << "what was put in is not searched again";
    EXPECT_EQ(ReplaceAll("abc", "", "x"), "abc");
    EXPECT_EQ(DoubleQuotes("'a'"), "''a''");
}

TEST(Text, NumbersAreTakenWholeOrNotAtAll) {
    EXPECT_EQ(ParseInt64("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(ParseUint64("18446744073709551615"), UINT64_MAX);
    for (const char* bad : {"", " 1", "1 ", "+1", "1.0", "0x1", "9223372036854775808", "-", "--1"})
        EXPECT_FALSE(ParseInt64(bad)) << bad;
    EXPECT_FALSE(ParseUint64("-1"));
    EXPECT_FALSE(ParseUint64("18446744073709551616"));
}

TEST(Text, SplittingKeepsEmptyPieces) {
    EXPECT_EQ(SplitText("/a", '/'), (Pieces{"", "a"}));
    EXPECT_EQ(SplitText("", '/'), (Pieces{""}));
    EXPECT_EQ(SplitText("a//", '/'), (Pieces{"a", "", ""}));

    StringTokeniser tokens("host:1/GUID", '/');
    EXPECT_EQ(tokens.GetToken(1), "GUID");
    EXPECT_EQ(tokens.GetToken(2), "");
    Pieces walked;
    for (KelString token; tokens.GetNextToken(token);)
        walked.push_back(token);
    EXPECT_EQ(walked, (Pieces{"host:1", "GUID"}));
}

TEST(Text, IllFormedUtf8IsFoundAtItsOffset) {
    const std::pair<KelString, std::size_t> cases[] = {
        {"a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", KelString::npos},
        {"ab\x80", 2},             // continuation without a lead
        {"a\xC3", 1},              // cut off
        {"\xC0\xAF", 0},           // overlong
        {"\xE0\x9F\xBF", 0},       // overlong
        {"\xED\xA0\x80", 0},       // surrogate
        {"a\xF4\x90\x80\x80", 1},  // beyond U+10FFFF
        {"\xF0\x8F\xBF\xBF", 0},   // overlong
        {"\xE2\x82x", 0},
        {"\xFF", 0},
    };
    for (const auto& [text, offset] : cases)
        EXPECT_EQ(FindIllFormedUtf8(text), offset) << HexText(text);
}

TEST(Base64, RoundTripAndRefusals) {
    // RFC 4648, section 10
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
        {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"\xFF\xFE\xFB", "//77"}};
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(Base64Encode(bytes), text);
        EXPECT_EQ(Base64Decode(text), bytes);
    }
    for (const char* bad : {"Z", "Zg=", "Zg", "Zh==", "Zg==Zg==", "Z===", "====", "Zm9\n", "Zm 8"})
        EXPECT_FALSE(Base64Decode(bad)) << bad;
}

}  // namespace
