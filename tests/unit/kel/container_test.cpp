#include "kel/container.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

TEST(Container, ValuesKeepTheirOrderUnderEachName) {
    KelContainer c;
    EXPECT_EQ(c.Count("a"), KelContainer::kAbsent);
    c.SetString("b", "b0");
    c.SetInt32("a", 1);
    c.SetInt32("a", 2, 1);
    c.SetInt32("a", 3, 99);
    c.SetString("b", "b1", 1);
    c.SetString("b", "replaced", 0);
    EXPECT_EQ(c.Count("a"), 3U);
    EXPECT_EQ(c.GetInt32("a", 0, 2), 3);
    EXPECT_EQ(c.GetString("b"), "replaced");
    EXPECT_EQ(c.GetName(0), "b");
    c.Remove("b");
    EXPECT_FALSE(c.Has("b"));
    EXPECT_EQ(c.GetNameCount(), 1U);
    EXPECT_FALSE(c.Has("A")) << "names are case-sensitive";
}

TEST(Container, ManyNamesStayReachableAfterRemovals) {
    KelContainer c;
    for (int i = 0; i < 1000; ++i)
        c.SetInt32("n" + std::to_string(i), i);
    for (int i = 0; i < 1000; i += 3)
        c.Remove("n" + std::to_string(i));
    c.SetInt32("n0", 5000);
    const KelContainer copy = c;
    for (int i = 1; i < 1000; ++i)
        EXPECT_EQ(copy.GetInt32("n" + std::to_string(i), -1), i % 3 == 0 ? -1 : i);
    EXPECT_EQ(copy.GetInt32("n0"), 5000);
    EXPECT_EQ(copy.GetName(copy.GetNameCount() - 1), "n0");
}

TEST(Container, ConversionsLoseNothingOrFallBack) {
    KelContainer c;
    const KelVector<KelString> texts = {"-42", "4294967296", "12x"};
    for (const KelString& text : texts)
        c.SetString(text, text);
    c.SetString("word", "true");
    c.SetBool("flag", true);
    c.SetInt32("two", 2);
    c.SetInt64("one", 1);
    c.SetInt64("wide", std::numeric_limits<std::int64_t>::min());
    c.SetContainer("inner", {});
    const std::pair<const char*, std::int32_t> narrow[] = {
        {"-42", -42}, {"4294967296", 7}, {"12x", 7}, {"flag", 1}, {"two", 2}, {"wide", 7}, {"inner", 7}};
    for (const auto& [name, value] : narrow)
        EXPECT_EQ(c.GetInt32(name, 7), value) << name;
    EXPECT_EQ(c.GetInt32("two", 9, 1), 9) << "an index beyond the last";
    EXPECT_EQ(c.GetInt64("4294967296"), 4294967296);
    EXPECT_EQ(c.GetInt64("12x", -1), -1);
    EXPECT_TRUE(c.GetBool("word") && c.GetBool("one"));
    EXPECT_FALSE(c.GetBool("two", false));
    EXPECT_TRUE(c.GetBool("two", true));
    EXPECT_EQ(c.GetString("flag"), "true");
    EXPECT_EQ(c.GetString("wide"), "-9223372036854775808");
    EXPECT_EQ(c.GetString("inner", "none"), "none");
    EXPECT_TRUE(c.GetContainer("word").IsEmpty());
}

TEST(Container, CopiesAreDeepAndMovesLeaveAUsableObject) {
    KelContainer inner;
    inner.SetString("x", "old");
    KelContainer c;
    c.SetContainer("in", inner);
    KelContainer copy = c;
    EXPECT_EQ(copy, c);
    inner.SetString("x", "new");
    copy.SetContainer("in", inner);
    EXPECT_FALSE(copy == c);
    const KelContainer moved = std::move(copy);
    copy.SetInt32("again", 1);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(copy.Count("again"), 1U);
    EXPECT_EQ(moved.GetContainer("in").GetString("x"), "new");
    c.SetContainer("self", c);
    EXPECT_EQ(c.GetContainer("self").GetContainer("in").GetString("x"), "old");
}

}  // namespace
