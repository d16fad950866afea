#include "kel/format.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

TEST(Format, NumbersAtTheirLimits) {
    constexpr auto kMin64 = std::numeric_limits<std::int64_t>::min();
    constexpr auto kMax64 = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(KelFormat("%d %d %d", -1, std::numeric_limits<std::int32_t>::min(), true), "-1 -2147483648 1");
    EXPECT_EQ(KelFormat("%u %x", 0xFFFFFFFFU, 0xDEADBEEFU), "4294967295 deadbeef");
    EXPECT_EQ(KelFormat("%ld %gd", -5L, kMin64), "-5 -9223372036854775808");
    EXPECT_EQ(KelFormat("%lu %gu %gu", 7UL, kMax64, static_cast<unsigned short>(9)),
              "7 18446744073709551615 9");
}

TEST(Format, TextsIncludingZeroBytesAndNullPointers) {
    const KelString withZero("a\0b", 3);
    const char* none = nullptr;
    EXPECT_EQ(KelFormat("[%S][%s][%s]", withZero, "plain", none), "[" + withZero + "][plain][]");
    EXPECT_EQ(KelFormat("'%Q'", KelString("it's ''")), "'it''s '''''");
    EXPECT_EQ(KelFormat("%S", KelString("%d %S %%")), "%d %S %%") << "arguments are no format strings";
}

TEST(Format, PercentSigns) {
    EXPECT_EQ(KelFormat("%gu %", std::uint64_t{50}), "50 %");
    EXPECT_EQ(KelFormat("'%S%'", KelString("x")), "'x%'");
    EXPECT_EQ(KelFormat("'%/%S%'", KelString("x")), "'%/x%'");
    EXPECT_EQ(KelFormat("100%% %l %gx %q%%d %s", "end"), "100% %l %gx %q%d end");
}

}  // namespace
