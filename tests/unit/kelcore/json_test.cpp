#include "kelcore/json.h"

#include <gtest/gtest.h>

namespace {

TEST(Json, ContainersSurviveTheRoundTripInOrder) {
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
    const KelString json = ContainerToJson(sample);
    EXPECT_EQ(json,
              "{\"Zulu\":\"\xC3\xA4\xE2\x82\xAC'\",\"Flag\":true,\"Small\":-2147483648,\"Large\":2147483648,"
              "\"Lowest\":-9223372036854775808,"
              "\"Values\":[{\"Name\":\"in\\\"ner\\\\\\n\\u0001\"},{}],\"Mixed\":[1,\"two\"]}");
    KelContainer back;
    ASSERT_TRUE(ContainerFromJson(json, back));
    EXPECT_TRUE(back == sample) << "types included";
    back.Clear();
    back.SetString("A\xFF", "b\xFE");
    EXPECT_EQ(ContainerToJson(back), "{\"A\xEF\xBF\xBD\":\"b\xEF\xBF\xBD\"}");
}

KelString Nested(std::size_t levels) {
    KelString json;
    for (std::size_t i = 1; i < levels; ++i)
        json += R"({"a":)";
    return json + "{}" + KelString(levels - 1, '}');
}

/// What comes of a text that is read into a container with other content: as JSON again, or "refused".
KelString Reread(const KelString& json) {
    KelContainer container;
    container.SetBool("Old", true);
    const KelStatus status = ContainerFromJson(json, container);
    EXPECT_EQ(status.Error().message.empty(), static_cast<bool>(status));
    EXPECT_TRUE(status || container.IsEmpty());
    return status ? ContainerToJson(container) : "refused";
}

TEST(Json, TextsAreReadOrRefusedWhole) {
    EXPECT_EQ(Reread(" \n"), "{}");
    EXPECT_EQ(Reread(R"( { "a" : [ 1 , 2 ] } )"), R"({"a":[1,2]})");
    EXPECT_EQ(Reread(R"({"a":[true]})"), R"({"a":true})");
    EXPECT_EQ(Reread(R"({"a":[],"b":1})"), R"({"b":1})");
    EXPECT_EQ(Reread(R"({"\u0041":"\ud83d\ude00"})"), "{\"A\":\"\xF0\x9F\x98\x80\"}");
    EXPECT_EQ(Reread(Nested(64)), Nested(64));
    for (const KelString& bad :
         KelVector<KelString>{Nested(65), KelString(2000000, '['), "[1]", "1", R"("a")", R"({"a":null})",
                              R"({"a":1,"b":1.5})", R"({"a":9223372036854775808})", R"({"a":[[1]]})",
                              R"({"a":1,"a":2})", R"({"a":1} x)", R"({"a":[1)", "{\"a\":\"\xFF\"}"})
        EXPECT_EQ(Reread(bad), "refused") << bad.substr(0, 60);
}

TEST(Json, NoMoreValuesAreBuiltThanAllowed) {
    KelContainer container;
    EXPECT_TRUE(ContainerFromJson(R"({"a":[1,2],"c":{"d":true}})", container, 4));
    for (const char* json :
         {R"({"a":[1,2,3,4,5]})", R"({"a":[{},{},{},{},{}]})", R"({"c":{"d":{"e":{"f":{"g":1}}}}})"})
        EXPECT_FALSE(ContainerFromJson(json, container, 4)) << json;
    EXPECT_TRUE(container.IsEmpty());
}

}  // namespace
