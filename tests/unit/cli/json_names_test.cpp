#include "cli/json_names.h"

#include <gtest/gtest.h>

#include "kelcore/json.h"

namespace {

TEST(JsonNamesTest, NamesAndStatusesAreThoseOfTheCommandLine) {
    for (const auto& [given, printed] : std::initializer_list<std::pair<const char*, const char*>>{
             {R"({"FileId":7,"FileStatus":"_AGTMOD_FILESTORESTATUS_TOBEUPLOADED_","TransferredData":"50 %"})",
              R"({"id":7,"status":"to_be_uploaded","percent":50})"},
             {R"({"FileName":"n","TransferredData":"N/A","SomethingNew":1})", R"({"name":"n"})"},
             {R"({"FileStatus":"_AGTMOD_FILESTORESTATUS_UNICAST_AVAILABLE_"})",
              R"({"status":"unicast_available"})"},
             {R"({"Files":{"_AGTMOD_FILESTORESTATUS_AVAILABLE_":5000000000}})",
              R"({"files":{"available":5000000000}})"},
             {R"({"Agent":{"Modules":["a","b"]},"Relay":{"ParentSync":true}})",
              R"({"agent":{"modules":["a","b"]},"relay":{"parent_in_sync":true}})"}}) {
        KelContainer item;
        ASSERT_TRUE(ContainerFromJson(given, item)) << given;
        EXPECT_EQ(ContainerToJson(ForJson(item)), printed);
    }
}

}  // namespace
