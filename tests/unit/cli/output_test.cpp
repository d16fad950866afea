#include <gtest/gtest.h>

#include "cli/call_arguments.h"
#include "cli/init_command.h"
#include "cli/progress_bar.h"
#include "cli/table.h"

namespace {

TEST(TableTest, ColumnsAreAsWideAsTheirWidestCellInCharacters) {
    Table table({"NAME", "N", "X"});
    table.AddRow({"grün", "7", "a"});
    table.AddRow({"longer", "1024"});
    EXPECT_EQ(table.Render(),
              "NAME       N  X\n"
              "grün       7  a\n"
              "longer  1024\n");
}

TEST(TableTest, ControlCharactersCannotSteerTheTerminal) {
    Table table({"NAME"});
    table.AddRow({"a\x1b[2Jb\nc"});
    EXPECT_EQ(table.Render(), "NAME\na?[2Jb?c\n");
}

TEST(TableTest, SizesTurnToTheNextUnitAt1024) {
    EXPECT_EQ(SizeText(0), "0 B");
    EXPECT_EQ(SizeText(1023), "1023 B");
    EXPECT_EQ(SizeText(1536), "1.5 KiB");
    EXPECT_EQ(SizeText(std::int64_t{256} << 20), "256.0 MiB");
}

TEST(ProgressBarTest, ShareIsClampedAndAnEmptyWholeIsDone) {
    EXPECT_EQ(ProgressBar::Text(1, 4, 8), "[##......] 25 %");
    EXPECT_EQ(ProgressBar::Text(9, 4, 4), "[####] 100 %");
    EXPECT_EQ(ProgressBar::Text(0, 0, 4), "[####] 100 %");
}

TEST(CallArgumentsTest, TextJsonAndRepeatedNames) {
    KelContainer container;
    for (const char* text : {"Device=a=b", "Device=c", "Count:=7", "Flag:=true", "Values:={\"QueueGap\":1}",
                             "List:=[1,2]", "Big:=5000000000"})
        ASSERT_TRUE(AddCallArgument(text, container)) << text;
    EXPECT_EQ(container.GetString("Device", {}, 0), "a=b");
    EXPECT_EQ(container.GetString("Device", {}, 1), "c");
    EXPECT_EQ(container.GetType("Count"), KelContainer::Type::Int32);
    EXPECT_EQ(container.GetType("Flag"), KelContainer::Type::Bool);
    EXPECT_EQ(container.GetContainer("Values").GetInt32("QueueGap"), 1);
    EXPECT_EQ(container.GetInt32("List", 0, 1), 2);
    EXPECT_EQ(container.GetInt64("Big"), 5000000000);
}

TEST(CallArgumentsTest, MalformedArgumentsAreRefused) {
    KelContainer container;
    for (const char* text : {"", "name", "=x", ":=1", "a:={", "a:=1,\"b\":2"})
        EXPECT_FALSE(AddCallArgument(text, container)) << text;
    EXPECT_TRUE(container.IsEmpty());
}

InitOptions Init(const char* role, const char* parent) {
    InitOptions options;
    options.role = role;
    options.parent = parent;
    options.address = "127.0.1.1";
    options.port = 8080;
    options.name = "tree";
    return options;
}

TEST(InitTest, TheParentMustFitTheRole) {
    EXPECT_TRUE(TemplateValues(Init("master", ""), "p"));
    EXPECT_FALSE(TemplateValues(Init("master", "h:1"), "p"));
    for (const char* parent : {"", "h", ":1", "h:", "h:0", "h:65536", "h:x", "a b:1", "h\n[x]:1"})
        EXPECT_FALSE(TemplateValues(Init("relay", parent), "p")) << parent;
    const auto values = TemplateValues(Init("client", "relay.example:8081"), "p");
    ASSERT_TRUE(values);
    EXPECT_EQ(values->at("PARENT_NAME"), "relay.example");
    EXPECT_EQ(values->at("PARENT_PORT"), "8081");
}

TEST(InitTest, OnlyTheMasterRunsTheConsole) {
    EXPECT_NE(TemplateValues(Init("master", ""), "p")->at("MODULES").find("=Console\n"), KelString::npos);
    EXPECT_EQ(TemplateValues(Init("relay", "h:1"), "p")->at("MODULES").find("Console"), KelString::npos);
}

TEST(InitTest, PlaceholdersAreFilledOnceAndOtherTextStays) {
    EXPECT_EQ(FillTemplate("a@PORT@ b@c @X@PORT@ @", {{"PORT", "@X@"}, {"X", "no"}}), "a@X@ b@c noPORT@ @");
}

}  // namespace
