#include "kelcore/json.h"

#include <gtest/gtest.h>

namespace {

KelContainer Sample() {
    KelContainer inner;
    inner.SetString("Name", "in\"ner\\\n\x01");
    KelContainer sample;
    sample.SetString("Zulu", "\xC3\xA4\xE2\x82\xAC'");
    sample.SetBool("Flag", true);
    sample.SetInt32("Small", -2147483647 - 1);
    sample.SetInt64("Large", 2147483648);
    sample.SetInt64("Lowest", std::numeric_limits<std::int64_t>::min());
    sample.SetContainer("Values", inner, 0);
    sample.SetContainer("Values", KelContainer(), 1);
    sample.SetInt32("Mixed", 1, 0);
    sample.SetString("Mixed", "two", 1);
    return sample;
}

TEST(Json, ContainersSurviveTheRoundTripInOrder) {
    const KelString json = ContainerToJson(Sample());
    EXPECT_EQ(json,
              "{\"Zulu\":\"\xC3\xA4\xE2\x82\xAC'\",\"Flag\":true,\"Small\":-2147483648,\"Large\":2147483648,"
              "\"Lowest\":-9223372036854775808,"
              "\"Values\":[{\"Name\":\"in\\\"ner\\\\\\n\\u0001\"},{}],\"Mixed\":[1,\"two\"]}");
    KelContainer back;
    ASSERT_TRUE(ContainerFromJson(json, back));
    EXPECT_TRUE(back == Sample());
    EXPECT_EQ(back.GetType("Small"), KelContainer::Type::Int32);
    EXPECT_EQ(back.GetType("Large"), KelContainer::Type::Int64);
    EXPECT_EQ(ContainerToJson(KelContainer()), "{}");
}

TEST(Json, BytesThatAreNoUtf8AreReplaced) {
    KelContainer container;
    container.SetString("A\xFF", "b\xFE");
    EXPECT_EQ(ContainerToJson(container), "{\"A\xEF\xBF\xBD\":\"b\xEF\xBF\xBD\"}");
}

struct Text {
    const char* name;
    KelString json;
    const char* result;  // the JSON read back, or null when the text is refused
};

class JsonTextTest : public testing::TestWithParam<Text> {};

KelString Nested(int levels) {
    KelString json;
    for (int i = 1; i < levels; ++i)
        json += "{\"a\":";
    return json + "{}" + KelString(static_cast<std::size_t>(levels - 1), '}');
}

TEST_P(JsonTextTest, IsReadOrRefusedWhole) {
    KelContainer container;
    container.SetBool("Old", true);
    const KelStatus status = ContainerFromJson(GetParam().json, container);
    EXPECT_EQ(static_cast<bool>(status), GetParam().result != nullptr);
    EXPECT_EQ(ContainerToJson(container), GetParam().result != nullptr ? GetParam().result : "{}");
    EXPECT_EQ(status.Error().message.empty(), GetParam().result != nullptr);
}

const KelString kDeepest = Nested(64);

INSTANTIATE_TEST_SUITE_P(
    Texts, JsonTextTest,
    testing::Values(Text{"Blank", " \n", "{}"}, Text{"Blanks", " { \"a\" : [ 1 , 2 ] } ", "{\"a\":[1,2]}"},
                    Text{"OneInArray", "{\"a\":[true]}", "{\"a\":true}"},
                    Text{"EmptyArray", "{\"a\":[],\"b\":1}", "{\"b\":1}"},
                    Text{"ObjectsInArray", "{\"a\":[{\"b\":[1,2]},{\"b\":3}],\"c\":4}",
                         "{\"a\":[{\"b\":[1,2]},{\"b\":3}],\"c\":4}"},
                    Text{"Escapes", "{\"\\u0041\":\"\\ud83d\\ude00\"}", "{\"A\":\"\xF0\x9F\x98\x80\"}"},
                    Text{"DeepestAllowed", kDeepest, kDeepest.c_str()}, Text{"TooDeep", Nested(65), nullptr},
                    Text{"FarTooDeep", KelString(2000000, '['), nullptr},
                    Text{"TopLevelArray", "[1]", nullptr}, Text{"TopLevelNumber", "1", nullptr},
                    Text{"TopLevelText", "\"a\"", nullptr}, Text{"Null", "{\"a\":null}", nullptr},
                    Text{"Fraction", "{\"a\":1,\"b\":1.5}", nullptr},
                    Text{"TooLargeInteger", "{\"a\":9223372036854775808}", nullptr},
                    Text{"ArrayInArray", "{\"a\":[[1]]}", nullptr},
                    Text{"RepeatedName", "{\"a\":1,\"a\":2}", nullptr},
                    Text{"TrailingText", "{\"a\":1} x", nullptr}, Text{"Unfinished", "{\"a\":[1", nullptr},
                    Text{"BadUtf8", "{\"a\":\"\xFF\"}", nullptr}),
    [](const auto& one) { return KelString(one.param.name); });

}  // namespace
