#include "kel/container.h"

#include <gtest/gtest.h>

#include <limits>

#include "kel/text.h"
#include "temp_folder.h"

namespace {

TEST(Container, ManyNamesStayReachableAfterRemovals) {
    KelContainer c;
    for (int i = 0; i < 1000; ++i)
        c.SetInt32("n" + std::to_string(i), i);
    for (int i = 0; i < 1000; i += 3)
        c.Remove("n" + std::to_string(i));
    c.SetInt32("n0", 5000);
    for (int i = 1; i < 1000; ++i)
        EXPECT_EQ(c.GetInt32("n" + std::to_string(i), -1), i % 3 == 0 ? -1 : i);
    EXPECT_EQ(c.GetInt32(c.GetName(c.GetNameCount() - 1)), 5000);
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
    EXPECT_TRUE(c.GetBool("word") && c.GetBool("one") && c.GetBool("two", true) && !c.GetBool("two", false));
    EXPECT_EQ(c.GetString("flag") + c.GetString("wide"), "true-9223372036854775808");
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

TEST(ContainerXml, EveryStringSurvivesAsValueAndAsName) {
    KelContainer c;
    KelString allBytes;
    for (int i = 0; i < 256; ++i)
        allBytes += static_cast<char>(i);
    KelVector<KelString> texts = SplitText(
        "| |  lead and trail  |\t|\r\n|a\rb\r\nc|YWJj|it's \"<&>\" ]]> &amp; "
        "&#10;|<![CDATA[x]]>|<!--|<?xml|\x1B[31m|"
        "\x7F|\xC3|\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80|\xEF\xBF\xBE|\xEF\xBB\xBF bom|\xED\xA0\x80",
        '|');
    texts.push_back(allBytes);
    for (const KelString& text : texts) {
        c.SetString(text, text);
        c.SetString("list", text, KelContainer::kAbsent);
    }
    const KelString xml = c.SaveToXML();
    EXPECT_EQ(xml.find('\''), KelString::npos) << "the text must fit between single quotes";
    KelContainer read;
    const KelStatus status = read.LoadFromXML(xml);
    ASSERT_TRUE(status) << status.Error().message;
    EXPECT_TRUE(read == c);
    EXPECT_EQ(read.SaveToXML(), xml);
}

TEST(ContainerXml, TypesAndNestingSurvive) {
    KelContainer deepest;
    deepest.SetString("end", "here");
    for (std::size_t level = 2; level < KelContainer::kMaxDepth; ++level) {
        KelContainer outer;
        outer.SetContainer("in", std::move(deepest));
        deepest = std::move(outer);
    }
    KelContainer c;
    c.SetBool("b", true);
    c.SetBool("b", false, 1);
    c.SetInt32("i", std::numeric_limits<std::int32_t>::min());
    c.SetInt64("l", std::numeric_limits<std::int64_t>::max());
    c.SetString("i", "mixed types under one name", 1);
    c.SetContainer("empty", {});
    c.SetContainer("deep", deepest);
    KelContainer read;
    ASSERT_TRUE(read.LoadFromXML(c.SaveToXML()));
    EXPECT_TRUE(read == c);

    KelContainer tooDeep;
    tooDeep.SetContainer("x", c);
    EXPECT_FALSE(read.LoadFromXML(tooDeep.SaveToXML()));
    const TempFolder folder;
    EXPECT_FALSE(tooDeep.SaveToFile(folder / "deep.xml")) << "what cannot be read back is not saved";
    KelString path;
    ASSERT_TRUE(c.SaveToTempFile(path, folder.Path()));
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
    EXPECT_FALSE(c.SaveToTempFile(path, folder / "missing"));
}

TEST(ContainerXml, AcceptsOtherWritersForms) {
    KelContainer c;
    const KelStatus status = c.LoadFromXML(
        "\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?>\n<!-- > < -->\n<Container>\r\n"
        "  <Value name='a' type='string'>x<![CDATA[<y>&]]>&#x7A;<!-- no -->!</Value>\n"
        "  <Value type=\"int32\" name=\"n&lt;&apos;\"> 5 </Value>\n"
        "  <Value name=\"a\">2\r\n3</Value> <Value name='e'/>\n"
        "  <Value name='c' type='container'>\n</Value>\n"
        "  <Value name='a' type='bool'>1</Value>\n</Container>\n");
    ASSERT_TRUE(status) << status.Error().message;
    EXPECT_EQ(c.GetString("a"), "x<y>&z!");
    EXPECT_EQ(c.GetString("a", "", 1), "2\n3") << "line ends are normalised, interleaved names keep order";
    EXPECT_TRUE(c.GetBool("a", false, 2));
    EXPECT_EQ(c.GetInt32("n<'"), 5);
    EXPECT_EQ(c.Count("e"), 1U);
    EXPECT_TRUE(c.IsContainer("c"));
    ASSERT_TRUE(c.LoadFromXML(""));
    EXPECT_TRUE(c.IsEmpty());
}

/// A document of one element whose first character is at line 2, column 2.
KelString In(const KelString& element) {
    return "<Container>\n " + element + "</Container>";
}

/// The same with a string value; its text begins at column 18.
KelString Text(const KelString& text) {
    return In("<Value name='a'>" + text + "</Value>");
}

KelString Nested(const KelString& element, std::size_t count) {
    KelString xml = "<Container>";
    for (std::size_t i = 0; i < count; ++i)
        xml += element;
    return xml;
}

TEST(ContainerXml, RefusalsNameThePlaceAndLeaveNothing) {
    const auto value = [](const char* rest) { return In(KelString("<Value name='a' ") + rest); };
    const std::pair<const char*, KelVector<KelString>> cases[] = {
        {"line 1, column 1", {"<!DOCTYPE Container [<!ENTITY a 'b'>]>\n<Container/>"}},
        {"line 1, column 24", {"<Container></Container></Container>"}},
        {"line 1", {"<Box/>", "<Container/><Container/>", "only text"}},
        {"line 2, column 2", {In(KelString("\0", 1))}},
        {"line 2, column 3", {In("<Item name='a'/>")}},
        {"line 2, column 15", {In("<Value name='&a;'/>")}},
        {"line 2, column 18", {Text("&file;"), Text("&#0;"), Text("\x01"), Text("\xC3(")}},
        {"line 2, column 20", {Text("a & b")}},
        {"line", {In("loose")}},
        {"line 2",
         {Text("&#xD800;"), Text("&#99999999999;"), Text("&#x110000;"), Text("<b/>"),
          "<Container>\n<Value name='a'>text", In("<Value name='a'></Valu>"),
          In("<Value type='bool'>1</Value>"), value("type='int64'/>"),
          value("type='int32'>2147483648</Value>"), value("encoding='base64'>A</Value>"),
          value("encoding='hex'>41</Value>")}},
        {"float", {value("type='float'>1</Value>")}},
        {"maybe", {value("type='bool'>maybe</Value>")}},
        {"nested",
         {Nested("<Value name='a' type='container'>", 5000),
          Nested("<Value name='/>' type='container'>", 5000)}},
        {"67108864", {KelString(KelContainer::kMaxXmlBytes + 1, ' ')}}};
    for (const auto& [place, texts] : cases)
        for (const KelString& xml : texts) {
            SCOPED_TRACE(xml.substr(0, 60));
            KelContainer c;
            c.SetString("before", "x");
            const KelStatus status = c.LoadFromXML(xml);
            EXPECT_FALSE(status);
            EXPECT_NE(status.Error().code, 0U);
            EXPECT_NE(status.Error().message.find(place), KelString::npos) << status.Error().message;
            EXPECT_TRUE(c.IsEmpty());
        }
}

TEST(ContainerXml, NoMorePiecesAreBuiltThanTheValuesAllow) {
    const auto repeat = [](const char* piece, int times) {
        KelString text;
        for (int i = 0; i < times; ++i)
            text += piece;
        return text;
    };
    const KelString inner = "<Value name='c' type='container'><Value name='i'/></Value>";
    for (const auto& [content, isAllowed] : std::initializer_list<std::pair<KelString, bool>>{
             {repeat("<Value name='a'>1</Value>", 4), true},
             {repeat("<Value name='a'>1</Value>", 5), false},
             {inner + inner, true},
             {inner + inner + inner, false},
             {"<Value name='a'" + repeat(" x=''", 19) + "/>", true},
             {"<Value name='a'" + repeat(" x=''", 20) + "/>", false},
             {"<Value name='a'>" + repeat("b<![CDATA[]]>", 20) + "</Value>", false},
             {repeat("<!---->", 21), false},
             {repeat("<?x?>", 21), false}}) {
        KelContainer c;
        EXPECT_EQ(static_cast<bool>(c.LoadFromXML("<Container>" + content + "</Container>", 4)), isAllowed)
            << content;
        EXPECT_EQ(c.IsEmpty(), !isAllowed) << content;
    }
}

}  // namespace
